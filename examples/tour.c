/*
 * tour.c - all ten functions of libobreg on real data.
 *
 *     tour             takes the tour
 *     tour --restart   waits in the middle for a line on standard input; restart the daemon meanwhile, however
 *                      roughly, and see that the program neither notices nor loses anything
 *
 * The tour writes to HKEY_CURRENT_USER\Software\Tour, which every user may do. It leaves one key there, named after
 * the kind of program it is, so that the 32-bit and the 64-bit build can read what the other has written.
 *
 * It exits with 0 when everything was as it should be; else it says what was not, and exits with 1.
 */
#include <obreg/obreg.h>
#include <obreg/roots.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define TOUR "Software\\Tour"

/* How many connections the library has made in this process; one of the variables it exports. */
extern int ipcInitSuccessfulAttempts;

/* What the tour stores: an editor's settings. Values hold bytes; their type only tells readers what the bytes mean. */
struct Setting {
    const char* pName;
    UINT32 type;
    void* pData;
    UINT32 length;
};

static char title[] = "Field notes";
static unsigned char fontSize[] = {14, 0, 0, 0};                         /* REG_DWORD: low byte first */
static unsigned char bytesRead[] = {0xD2, 0x02, 0x96, 0x49, 1, 0, 0, 0}; /* REG_QWORD: low byte first */
static unsigned char icon[] = {0, 255, '\r', '\n', '\r', '\n', 0, 10};   /* nothing is special in binary data */

static const struct Setting settings[] = {
    {"Title", REG_SZ, title, sizeof(title)}, /* the NUL is stored too */
    {"FontSize", REG_DWORD, fontSize, sizeof(fontSize)},
    {"BytesRead", REG_QWORD, bytesRead, sizeof(bytesRead)},
    {"Icon", REG_BINARY, icon, sizeof(icon)},
};
static const size_t settingCount = sizeof(settings) / sizeof(settings[0]);

/* --- Saying what happens, and stopping when it is not what should happen ---------------------------------------- */

static void heading(const char* pText) { printf("\n%s\n", pText); }

static const char* statusText(REGSTATUS status)
{
    switch (status) {
    case OBREG_STATUS_SUCCESS:
        return "success";
    case OBREG_STATUS_REQUEST_FAILED:
        return "request failed: is obregd running?";
    case OBREG_STATUS_BUFFER_TOO_SMALL:
        return "buffer too small";
    case OBREG_STATUS_NOT_FOUND:
        return "not found";
    case OBREG_STATUS_NO_MORE_ENTRIES:
        return "no more entries";
    case OBREG_STATUS_ACCESS_DENIED:
        return "access denied";
    default:
        return "see the statuses in obreg/obreg.h and obreg/roots.h";
    }
}

static void stop(const char* pWhat, const char* pWhy)
{
    fflush(stdout);
    fprintf(stderr, "tour: %s: %s\n", pWhat, pWhy);
    exit(1);
}

/* Every status is looked at: this is the only way in which the functions report anything. */
static void expect(REGSTATUS wanted, REGSTATUS status, const char* pWhat)
{
    char why[160];
    if (status == wanted)
        return;
    sprintf(why, "status 0x%08X (%s), expected 0x%08X", (unsigned)status, statusText(status), (unsigned)wanted);
    stop(pWhat, why);
}

static void succeed(REGSTATUS status, const char* pWhat) { expect(OBREG_STATUS_SUCCESS, status, pWhat); }

static void printBytes(const char* pName, UINT32 type, const unsigned char* pData, UINT32 length)
{
    UINT64 number = 0;
    UINT32 i;
    printf("    %-10s ", pName);
    switch (type) {
    case REG_SZ: /* whoever stored it may have left the NUL out: print no further than the data go */
        printf("string        \"%.*s\"\n", (int)length, (const char*)pData);
        break;
    case REG_DWORD:
    case REG_QWORD:
        for (i = length; i > 0; --i)
            number = number << 8 | pData[i - 1];
        printf("%s %llu\n", type == REG_DWORD ? "32-bit number" : "64-bit number", (unsigned long long)number);
        break;
    default:
        printf("%u bytes      ", (unsigned)length);
        for (i = 0; i < length; ++i)
            printf(" %02X", pData[i]);
        printf("\n");
    }
}

/* The daemon counts time in units of 100 ns since the year 1601. */
static void printTime(UINT64 lastWriteTime)
{
    const UINT64 secondsFrom1601To1970 = 11644473600u;
    const time_t seconds = (time_t)(lastWriteTime / 10000000u - secondsFrom1601To1970);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", gmtime(&seconds));
    printf("last written %s UTC", text);
}

/* --- The stations ---------------------------------------------------------------------------------------------- */

static HANDLE createKey(const char* pPath)
{
    HANDLE key = NULL;
    UINT32 disposition = 0;
    heading("OBRegCreateKeyExA makes a key, with the keys above it, or opens the one that is there");
    succeed(OBRegCreateKeyExA(HKEY_CURRENT_USER, pPath, 0, NULL, 0, KEY_ALL_ACCESS, NULL, &key, &disposition), pPath);
    printf("    HKEY_CURRENT_USER\\%s %s; its handle is %p\n", pPath,
           disposition == REG_CREATED_NEW_KEY ? "is new" : "was there already", key);
    return key;
}

static void storeSettings(HANDLE key)
{
    size_t i;
    heading("OBRegSetValueExA stores values; when it returns they are safely on disk");
    for (i = 0; i < settingCount; ++i) {
        const struct Setting* pSetting = &settings[i];
        succeed(OBRegSetValueExA(key, pSetting->pName, 0, pSetting->type, pSetting->pData, pSetting->length),
                pSetting->pName);
        printBytes(pSetting->pName, pSetting->type, pSetting->pData, pSetting->length);
    }
}

/* Reads a value of any length: asks how long it is, makes room, reads it. The caller frees the data. */
static unsigned char* readValue(HANDLE key, const char* pName, UINT32* pType, UINT32* pLength)
{
    unsigned char* pData;
    REGSTATUS status;
    succeed(OBRegQueryValueExA(key, pName, NULL, pType, NULL, pLength), pName);
    do { /* once, unless somebody stores a longer value in between: then the needed length is known anew */
        pData = malloc(*pLength + 1);
        if (pData == NULL)
            stop(pName, "out of memory");
        status = OBRegQueryValueExA(key, pName, NULL, pType, pData, pLength);
        if (status != OBREG_STATUS_SUCCESS)
            free(pData);
    } while (status == OBREG_STATUS_BUFFER_TOO_SMALL);
    succeed(status, pName);
    return pData;
}

static void readSettings(HANDLE key)
{
    size_t i;
    heading("OBRegQueryValueExA reads them back: the length first, then the bytes");
    for (i = 0; i < settingCount; ++i) {
        UINT32 type = 0;
        UINT32 length = 0;
        unsigned char* pData = readValue(key, settings[i].pName, &type, &length);
        if (type != settings[i].type || length != settings[i].length || memcmp(pData, settings[i].pData, length) != 0)
            stop(settings[i].pName, "what was read is not what was stored");
        printBytes(settings[i].pName, type, pData, length);
        free(pData);
    }
}

static void listValues(HANDLE key)
{
    UINT32 index;
    heading("OBRegEnumValueA walks through the values of a key");
    for (index = 0;; ++index) {
        char name[256];
        unsigned char data[64];
        int nameLength = sizeof(name); /* room going in, length coming out */
        UINT32 dataLength = sizeof(data);
        UINT32 type = 0;
        REGSTATUS status = OBRegEnumValueA(key, index, name, &nameLength, NULL, &type, data, &dataLength);
        if (status == OBREG_STATUS_NO_MORE_ENTRIES)
            break;
        succeed(status, "OBRegEnumValueA");
        printBytes(name, type, data, dataLength);
    }
    if (index != settingCount)
        stop("OBRegEnumValueA", "the key does not have the values that were stored");
}

/* The keys of all programs that have taken the tour, and the title that each of them stored. */
static void listPrograms(const char* pOwnName)
{
    HANDLE tour = NULL;
    UINT32 index;
    int foundOwn = 0;
    heading("OBRegEnumKeyExA walks through the keys below a key, OBRegOpenKeyExA opens them, in any spelling");
    succeed(OBRegOpenKeyExA(HKEY_CURRENT_USER, "SOFTWARE\\tour", 0, KEY_READ, &tour), "SOFTWARE\\tour");
    for (index = 0;; ++index) {
        char name[256];
        int nameLength = sizeof(name);
        UINT64 lastWriteTime = 0;
        UINT32 type = 0;
        UINT32 length = 0;
        HANDLE key = NULL;
        unsigned char* pData;
        REGSTATUS status = OBRegEnumKeyExA(tour, index, name, &nameLength, NULL, NULL, NULL, &lastWriteTime);
        if (status == OBREG_STATUS_NO_MORE_ENTRIES)
            break;
        succeed(status, "OBRegEnumKeyExA");
        succeed(OBRegOpenKeyExA(tour, name, 0, KEY_READ, &key), name);
        pData = readValue(key, "Title", &type, &length);
        printf("    %s, ", name);
        printTime(lastWriteTime);
        printf(", has the title \"%.*s\"\n", (int)length, (const char*)pData);
        foundOwn |= strcmp(name, pOwnName) == 0;
        free(pData);
        succeed(OBRegCloseKey(key), name);
    }
    if (!foundOwn)
        stop(pOwnName, "the key that was made is not among the keys");
    succeed(OBRegCloseKey(tour), "SOFTWARE\\tour");
}

static void keyInfo(HANDLE key)
{
    UINT32 subKeys = 0;
    UINT32 values = 0;
    UINT32 longestName = 0;
    UINT32 longestData = 0;
    UINT64 lastWriteTime = 0;
    heading("OBRegQueryInfoKeyA counts and measures");
    succeed(OBRegQueryInfoKeyA(key, NULL, NULL, NULL, &subKeys, NULL, NULL, &values, &longestName, &longestData, NULL,
                               &lastWriteTime),
            "OBRegQueryInfoKeyA");
    printf("    %u keys below, %u values, longest name %u bytes, longest data %u bytes,\n    ", (unsigned)subKeys,
           (unsigned)values, (unsigned)longestName, (unsigned)longestData);
    printTime(lastWriteTime);
    printf("\n");
    if (subKeys != 0 || values != settingCount || longestData != sizeof(title))
        stop("OBRegQueryInfoKeyA", "the figures do not fit what was stored");
}

/* Somebody restarts the daemon while this program stands still; it does nothing about it. */
static void sitThroughRestart(HANDLE key)
{
    const int connections = ipcInitSuccessfulAttempts;
    char line[80];
    printf("\nReady for the daemon's restart. Restart it, then press Enter.\n");
    fflush(stdout);
    if (fgets(line, sizeof(line), stdin) == NULL)
        stop("standard input", "ended before a line came");
    readSettings(key);
    if (ipcInitSuccessfulAttempts == connections)
        stop("restart", "the connection was never lost, so the daemon was not restarted");
    printf("The connection was lost and the library made a new one by itself (connections so far: %d).\n"
           "The program did nothing for that: it went on reading through the same handle, and nothing is missing.\n",
           ipcInitSuccessfulAttempts);
}

static void makeAndDelete(HANDLE key)
{
    HANDLE draft = NULL;
    heading("OBRegDeleteValueA and OBRegDeleteKeyA remove what is no longer wanted");
    succeed(OBRegCreateKeyExA(key, "Draft", 0, NULL, 0, KEY_ALL_ACCESS, NULL, &draft, NULL), "Draft");
    succeed(OBRegSetValueExA(draft, "Title", 0, REG_SZ, title, sizeof(title)), "Draft, Title");

    succeed(OBRegDeleteValueA(draft, "Title"), "Draft, Title");
    expect(OBREG_STATUS_NOT_FOUND, OBRegQueryValueExA(draft, "Title", NULL, NULL, NULL, NULL), "deleted value");
    printf("    the value Title of the key Draft: deleted; reading it now answers \"not found\"\n");

    succeed(OBRegDeleteKeyA(key, "Draft"), "Draft");
    expect(OBREG_STATUS_NOT_FOUND, OBRegOpenKeyExA(key, "Draft", 0, KEY_READ, &draft), "deleted key");
    printf("    the key Draft: deleted; opening it now answers \"not found\"\n");
}

static void closeKey(HANDLE key)
{
    heading("OBRegCloseKey says that a handle is no longer needed");
    succeed(OBRegCloseKey(key), "OBRegCloseKey");
    printf("    done\n");
}

int main(int argc, char** argv)
{
    const char* pOwnName = sizeof(void*) == 4 ? "32-bit program" : "64-bit program";
    const int restart = argc == 2 && strcmp(argv[1], "--restart") == 0;
    char path[64];
    HANDLE key;
    if (argc > 1 && !restart) {
        fprintf(stderr, "usage: tour [--restart]\n");
        return 2;
    }
    sprintf(path, TOUR "\\%s", pOwnName);

    printf("A tour of the registry, taken by a %s\n", pOwnName);
    key = createKey(path);
    storeSettings(key);
    readSettings(key);
    listValues(key);
    listPrograms(pOwnName);
    keyInfo(key);
    if (restart)
        sitThroughRestart(key);
    makeAndDelete(key);
    closeKey(key);
    printf("\nAll ten functions did what they should.\n");
    return 0;
}
