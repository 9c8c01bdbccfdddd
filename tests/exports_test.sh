#!/bin/sh
# The library's soname and its exported symbols, all of them and no others: exports_test.sh LIBRARY
set -eu
expected='CDebugDaemon CDebugLevel DoNotBypassRegDaemon IpcInit IpcShutdown MaxIpcSetupTime
OBRegCloseKey OBRegCreateKeyExA OBRegDeleteKeyA OBRegDeleteValueA OBRegEnumKeyExA OBRegEnumValueA OBRegForkHandler
OBRegOpenKeyExA OBRegQueryInfoKeyA OBRegQueryValueExA OBRegSetValueExA ReqReply clientMutex g_pSmartCChannel
getCChannel ipcInitAttempts ipcInitSuccessfulAttempts registryEngineInitialized'
actual=$(nm -D --defined-only "$1" | awk '{ print $NF }' | LC_ALL=C sort | tr '\n' ' ')
expected=$(echo $expected | tr ' ' '\n' | LC_ALL=C sort | tr '\n' ' ')
[ "$actual" = "$expected" ] || { printf 'expected: %s\nactual:   %s\n' "$expected" "$actual"; exit 1; }
objdump -p "$1" | grep -q 'SONAME  *libobreg\.so$' || { echo "soname is not libobreg.so"; exit 1; }
echo "$1: soname libobreg.so, $(echo $actual | wc -w) exported symbols"
