# Makes a manual page: cmake -D SOURCE=page.scd -D TARGET=page -D COMMON=folder -D SCDOC=program -P JoinManPage.cmake
#
# In the source, a line "@include NAME@" stands for the text of COMMON/NAME.scd, and "@statuses NAME...@" for an entry
# for each of these statuses of COMMON/statuses.txt; "*" for all.
file(READ ${SOURCE} page)

# By replacing text and not by lists: manual text is full of semicolons and brackets.
while(page MATCHES "@include ([a-z-]+)@\n")
    file(READ ${COMMON}/${CMAKE_MATCH_1}.scd text)
    string(REPLACE "@include ${CMAKE_MATCH_1}@\n" "${text}" page "${page}")
endwhile()

file(STRINGS ${COMMON}/statuses.txt statuses REGEX "^[^#]")
foreach(line IN LISTS statuses)
    string(REGEX MATCH "^([A-Z_]+) (0x[0-9A-F]+) (.*)$" line "${line}")
    set(name ${CMAKE_MATCH_1})
    list(APPEND names ${name})
    set(entry_of_${name} "*OBREG_STATUS_${name}*, ${CMAKE_MATCH_2}\n\t${CMAKE_MATCH_3}\n")
endforeach()

while(page MATCHES "@statuses ([A-Z_* ]+)@\n")
    set(wanted "${CMAKE_MATCH_1}")
    string(REPLACE " " ";" list "${wanted}")
    if(list STREQUAL "*")
        set(list ${names})
    endif()
    set(entries "")
    foreach(name IN LISTS list)
        if(NOT DEFINED entry_of_${name})
            message(FATAL_ERROR "${SOURCE}: ${COMMON}/statuses.txt has no status ${name}")
        endif()
        list(APPEND entries "${entry_of_${name}}")
    endforeach()
    list(JOIN entries "\n" entries)
    string(REPLACE "@statuses ${wanted}@\n" "${entries}" page "${page}")
endwhile()

file(WRITE ${TARGET}.scd "${page}")
execute_process(COMMAND ${SCDOC} INPUT_FILE ${TARGET}.scd OUTPUT_FILE ${TARGET} RESULT_VARIABLE result)
if(result)
    file(REMOVE ${TARGET})
    message(FATAL_ERROR "${SOURCE}: scdoc cannot read it as it is in ${TARGET}.scd; the line is named above")
endif()
