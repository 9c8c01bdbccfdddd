/*
 * watch.c - prints what changes below HKCU\Software\Example, when it changes: watch_c [COUNT] ends after COUNT changes.
 *
 * The question is an ordinary query; the daemon answers when there is something to tell, or when its time is up. So
 * this blocks: a program with other things to do asks in a thread. After a lost connection, and after a restart of the
 * daemon, the same question goes on where it was.
 */
#include <obreg/obreg.h>
#include <obreg/roots.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failed(const char* pWhat, REGSTATUS status)
{
    fprintf(stderr, "%s: status %08X\n", pWhat, (unsigned)status);
    return 1;
}

int main(int argc, char** argv)
{
    long left = argc > 1 ? atol(argv[1]) : -1;
    char since[32] = "now"; /* the number of the last change that is known */
    char question[128];
    char* pAnswer = NULL;
    UINT32 room = 0;
    HANDLE changes, key;

    REGSTATUS status = OBRegOpenKeyExA(HKEY_DYN_DATA, "Changes", 0, KEY_READ, &changes);
    if (status != OBREG_STATUS_SUCCESS)
        return failed("no daemon that tells changes", status);
    status = OBRegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Example", 0, NULL, 0, KEY_READ, NULL, &key, NULL);
    if (status != OBREG_STATUS_SUCCESS)
        return failed("create", status);

    while (left != 0) {
        const char* pLine;
        UINT32 length = room;
        snprintf(question, sizeof(question), "%lx %s 60000 tree", (unsigned long)(size_t)key, since);
        status = OBRegQueryValueExA(changes, question, NULL, NULL, pAnswer, &length);
        if (status == OBREG_STATUS_BUFFER_TOO_SMALL || (status == OBREG_STATUS_SUCCESS && pAnswer == NULL)) {
            char* const pLarger = realloc(pAnswer, room = length); /* the same question again: nothing is missed */
            if (pLarger == NULL)
                return failed("no memory", 0);
            pAnswer = pLarger;
            continue;
        }
        if (status == OBREG_STATUS_REQUEST_FAILED) { /* the daemon is away */
            sleep(1);
            continue;
        }
        if (status != OBREG_STATUS_SUCCESS)
            return failed("watch", status);

        /* Strings, each with its NUL: the number up to which is told, then each change, its fields split by tabs. */
        if (strcmp(since, "now") == 0)
            printf("watching\n");
        if (strchr(pAnswer, ' ') != NULL) /* "1234 lost" */
            printf("more has changed than the daemon still knows: look at everything\n");
        snprintf(since, sizeof(since), "%llu", strtoull(pAnswer, NULL, 10));
        for (pLine = pAnswer + strlen(pAnswer) + 1; *pLine != '\0' && left != 0; pLine += strlen(pLine) + 1, --left)
            printf("%s\n", pLine);
        fflush(stdout);
    }
    free(pAnswer);
    OBRegCloseKey(key);
    OBRegCloseKey(changes);
    return 0;
}
