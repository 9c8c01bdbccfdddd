#!/usr/bin/env bash
# The Debian packages as an administrator meets them: packages_test.sh FOLDER. lintian finds no error; all install, are
# used and are purged again on a copy of this system that nothing outside sees, and what is left is the store.
set -euo pipefail
if [ -z "${inside-}" ]; then
    packages=$(realpath "$1")
    lintian --fail-on error --allow-root "$packages"/*.deb
    inside=yes exec unshare --mount --pid --fork "$(realpath "$0")" "$packages"
fi

fail() { echo "$*"; exit 1; }
mount -t tmpfs none /mnt
mkdir /mnt/{root,changes,work}
mount -t overlay -o lowerdir=/,upperdir=/mnt/changes,workdir=/mnt/work none /mnt/root
mount -t proc proc /mnt/root/proc
mount --rbind /dev /mnt/root/dev
mkdir /mnt/root/packages
cp "$1"/*.deb /mnt/root/packages
inside() { chroot /mnt/root env -u LD_LIBRARY_PATH DEBIAN_FRONTEND=noninteractive "$@"; }

inside dpkg --install --recursive /packages >/mnt/dpkg.log 2>&1 || { cat /mnt/dpkg.log; fail "they do not install"; }
names=$(for package in "$1"/*.deb; do dpkg-deb --field "$package" Package; done)
chroot /mnt/root obregd 2>/mnt/obregd.log & # not through a shell, which would take the signal
daemon=$!
for _ in {1..100}; do
    ! grep -q "listening on" /mnt/obregd.log || break
    sleep 0.05
done
inside obreg set HKLM/Software/Packages Works yes
[ "$(inside obreg get HKLM/Software/Packages Works)" = yes ] || fail "what was set is not there"
for page in man1/obreg.1 man5/obreg-reg.5 man3/OBRegOpenKeyExA.3 man7/obreg.7 man8/obregd.8; do
    [ -s "/mnt/root/usr/share/man/$page.gz" ] || fail "there is no manual page $page"
done
cp "$(dirname "$0")/../examples/example.c" /mnt/root/app.c
for libraries in lib/x86_64-linux-gnu lib32; do
    case $libraries in lib32) flags=-m32 ;; *) flags=-m64 ;; esac
    inside env "PKG_CONFIG_PATH=/usr/$libraries/pkgconfig" sh -ec \
        "cc $flags app.c \$(pkg-config --cflags --libs obreg) -o app && ./app" || fail "no program for $libraries"
done
kill "$daemon"
wait "$daemon" || fail "the daemon ends with $?"
{ inside timeout 3 obregd --share 'HKLM\Shared=office' --engine http://127.0.0.1:1 2>&1 || true; } | grep -F "share office: the engine cannot be reached" ||
    fail "the engine of shared trees is not loaded"

# It was root's. Its own user is told so, and then gets its files back, but not what they have been replaced by.
folder=/var/opt/quorlin/ombrel/obregd
as_itself() { inside timeout 9 setpriv --reuid obregd --regid obregd --clear-groups obregd "$@" 2>&1; }
! said=$(as_itself --socket /tmp/trial --store "$folder/registry.db") && grep -F "chown -h obregd $folder/registry.db" <<<"$said" ||
    fail "no remedy is given"
inside ln /etc/shadow "$folder/registry.db-old"
inside ln -s /etc/passwd "$folder/registry.db.link"
inside /usr/libexec/obregd-own-files
[ "$(inside stat -c %U /etc/shadow /etc/passwd | uniq)" = root ] || fail "the daemon has got what is not its own"
inside rm "$folder/registry.db-old" "$folder/registry.db.link"
as_itself --check | grep -F "sound" || fail "its own user cannot use what root's daemon has left"
backups=/var/backups/obregd
for day in 1 2 3 4 5 6 7; do inside touch "$backups/registry-2020-01-0${day}_000000.db"; done
inside setpriv --reuid obregd --regid obregd --clear-groups /usr/libexec/obregd-backup "$backups" /usr/sbin/obregd
[ "$(inside find "$backups" -name '*.db' | sort | sed -n '1p;$=')" = "$backups/registry-2020-01-02_000000.db
7" ] || fail "not the last seven backups are kept"
[ "$(inside stat -c '%U %a' "$backups")" = "obregd 700" ] || fail "others can look into the backups"
# shellcheck disable=SC2086 # a list
inside dpkg --purge $names >>/mnt/dpkg.log 2>&1 || { cat /mnt/dpkg.log; fail "they cannot be purged"; }
inside rm -r "$backups" # they have stayed, as the store has

# The system's own records, and this test's files; systemd-sysusers keeps the user that the store belongs to.
left=$(cd /mnt/changes && find . \( -type f -o -type l \) -print | grep -vE \
    '^./(app(\.c)?|packages/.*|tmp/.*|run/.*|var/(log|cache|lib/(dpkg|systemd))/.*|etc/(ld\.so\.cache|(passwd|group|shadow|gshadow|subuid|subgid)-?|\.pwd\.lock))$')
[ "$left" = ./var/opt/quorlin/ombrel/obregd/registry.db ] || fail "these are left: $left"
echo "$(wc -w <<<"$names") packages installed, used and purged; only the store is left"
