# shellcheck shell=bash
# What ./demo, ./check and packaging/build-packages share; sourced by them, with the working directory at the top of the tree.
#
# Long commands run through run_job: in the background, as a process group of their own. So a signal to the script is
# answered at once and takes everything with it that the script has started.

# shellcheck disable=SC2034 # used by those who source this
build_packages=(g++ g++-multilib cmake ninja-build libgtest-dev libasio-dev libsqlite3-dev libsqlitecpp-dev libcli11-dev
    nlohmann-json3-dev)
# What the engine of shared trees is built from, and what it is tried with.
# shellcheck disable=SC2034
engine_packages=(libgrpc++-dev protobuf-compiler protobuf-compiler-grpc golang-etcd-server-dev golang-github-gogo-protobuf-dev
    golang-github-grpc-ecosystem-grpc-gateway-dev)
# shellcheck disable=SC2034
machines_packages=(etcd-server etcd-client iproute2)
# shellcheck disable=SC2034
packaging_packages=(dpkg-dev file scdoc)
jobs=$(nproc)
job=

die() { echo "$(basename "$0"): $*" >&2; exit 1; }

# The comment that a script begins with.
print_help() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; }

last_step=
last_began=
# progress STEP : a line about what begins now, and how long what came before has taken.
progress() {
    echo "... $1${last_step:+ ($last_step took $((SECONDS - last_began)) s)}"
    last_step=$1 last_began=$SECONDS
}

# What every daemon and test here runs in; to be asked for before anything long begins.
need_namespaces() {
    local why
    ! why=$(tests/support/in-namespace.sh true 2>&1) ||
        return 0
    die "this needs a private mount namespace, and cannot have one: $why
Run it as root (in a container: with --privileged), or let users have namespaces, as root:
    sysctl kernel.unprivileged_userns_clone=1 user.max_user_namespaces=10000 kernel.apparmor_restrict_unprivileged_userns=0
(those of them that this system knows)"
}

end_job() {
    [ -n "$job" ] || return 0
    local group=-$job
    job=
    kill -TERM -- "$group" 2>/dev/null || return 0 # a build takes its compilers with it when it is told so
    for _ in {1..20}; do
        kill -0 -- "$group" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -KILL -- "$group" 2>/dev/null || true
}

exec {terminal}>&2 # a trap may run while standard error is a log
trap end_job EXIT
trap 'echo "interrupted" >&"$terminal"; exit 130' INT
trap 'exit 129' HUP
trap 'exit 143' TERM

# run_job COMMAND... : its exit status, once it has ended. Reads no standard input.
run_job() {
    local status=0
    set -m # a process group for the job
    "$@" </dev/null &
    job=$!
    set +m
    wait "$job" || status=$?
    end_job # what the command may have left behind
    return "$status"
}

is_installed() { [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]; }

# install_missing LOG PACKAGE... : installs those that are not there; calls no package manager when all are.
install_missing() {
    local log=$1 package program missing=()
    shift
    if ! command -v dpkg-query >/dev/null; then
        for program in cmake ninja c++; do
            command -v "$program" >/dev/null || die "this is not a Debian system, and there is no $program; install what these packages hold: $*"
        done
        echo "This is not a Debian system; going on in the hope that there is what these packages hold: $*"
        return
    fi
    for package; do is_installed "$package" || missing+=("$package"); done
    [ ${#missing[@]} != 0 ] || return 0
    [ "$(id -u)" = 0 ] || die "these packages are missing and only root can install them: apt-get install ${missing[*]}"
    command -v apt-get >/dev/null || die "these packages are missing, and there is no apt-get to install them: ${missing[*]}"
    progress "installing ${missing[*]}"
    run_job apt_install "${missing[@]}" >"$log" 2>&1 || { tail -n 20 "$log" >&2; die "installing failed; all of it: $log"; }
}

apt_install() {
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q && apt-get install -q -y --no-install-recommends "$@"
}

build_options=()

# build PRESET [TARGET...] : all targets unless some are named; with build_options for CMake
build() {
    cmake --preset "$1" -D BUILD_TESTING=ON "${build_options[@]}" && ninja -C "build/$1" -j "$jobs" "${@:2}"
}

# build_as_packaged FLAG... : what is built from now on goes where the packages go, compiled with the flags that Debian
# wants for them, and these.
build_as_packaged() {
    local variable
    build_options=(-D CMAKE_INSTALL_PREFIX=/usr)
    for variable in C_FLAGS:CFLAGS CXX_FLAGS:CXXFLAGS {EXE,SHARED,MODULE}_LINKER_FLAGS:LDFLAGS; do
        build_options+=(-D "CMAKE_${variable%:*}=$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "${variable#*:}") $*")
    done
}
