/* example.c - stores a value, reads it back, lists what is there. Needs a running obregd. */
#include <obreg/obreg.h>
#include <obreg/roots.h>

#include <stdio.h>
#include <string.h>

static int failed(const char* pWhat, REGSTATUS status)
{
    fprintf(stderr, "%s: status %08X\n", pWhat, (unsigned)status);
    return 1;
}

int main(void)
{
    char title[64] = "Field notes";
    char name[256];
    int nameLength = sizeof(name);
    UINT32 length = sizeof(title);
    UINT32 type, index;
    HANDLE key;

    REGSTATUS status =
        OBRegCreateKeyExA(HKEY_CURRENT_USER, "Software\\Example", 0, NULL, 0, KEY_ALL_ACCESS, NULL, &key, NULL);
    if (status != OBREG_STATUS_SUCCESS)
        return failed("create", status);

    /* Data is stored as given; readers of REG_SZ expect the NUL, so it is counted in. */
    status = OBRegSetValueExA(key, "Title", 0, REG_SZ, title, (UINT32)strlen(title) + 1);
    if (status != OBREG_STATUS_SUCCESS)
        return failed("set", status);

    memset(title, 0, sizeof(title));
    status = OBRegQueryValueExA(key, "Title", NULL, &type, title, &length);
    if (status != OBREG_STATUS_SUCCESS)
        return failed("query", status);
    printf("Title is \"%s\", type %u, %u bytes\n", title, (unsigned)type, (unsigned)length);

    for (index = 0;
         (status = OBRegEnumValueA(key, index, name, &nameLength, NULL, &type, NULL, NULL)) == OBREG_STATUS_SUCCESS;
         ++index) {
        printf("value %u is named %s\n", (unsigned)index, name);
        nameLength = sizeof(name);
    }
    OBRegCloseKey(key);
    return status == OBREG_STATUS_NO_MORE_ENTRIES ? 0 : failed("enumerate", status);
}
