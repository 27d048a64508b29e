# shellcheck shell=bash
# What scripts/run, scripts/test and .ci/run share; sourced by them, from any directory.

unset CDPATH
project=$(cd "${BASH_SOURCE[0]%/*}/.." && pwd -P)

# step TEXT: announces a step of the work.
step() {
    printf '\n== %s\n' "$1"
}

# fail TEXT: the one closing line of a script that did not get through.
fail() {
    printf '%s: %s\n' "${0##*/}" "$1" >&2
    exit 1
}

# packages_of SET: the packages of a set of scripts/packages, on one line.
packages_of() {
    sed -n "s/^$1  *//p" "$project/scripts/packages"
}

# install_packages SET...: installs what is missing of these sets of scripts/packages.
install_packages() {
    local set name names missing=()
    step "packages: $*"
    for set in "$@"; do
        read -ra names < <(packages_of "$set")
        for name in "${names[@]}"; do
            [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] ||
                missing+=("$name")
        done
    done
    if [ ${#missing[@]} -eq 0 ]; then
        echo "all are installed"
        return
    fi
    echo "installing ${missing[*]}"
    { as_root apt-get update -q &&
        as_root apt-get install -y -q --no-install-recommends "${missing[@]}"; } ||
        fail "the packages could not be installed; the reason stands above"
}

# check_roots: makes sure that this machine lets bubblewrap make a device root, before a long build.
check_roots() {
    local said
    ! said=$(bwrap --ro-bind / / --dev /dev --proc /proc --unshare-pid --unshare-net true 2>&1) || return 0
    printf '%s\n' "$said"
    case $said in
        *"make / slave"*)
            fail "no device root can be made here: / is no mount point, as in a plain chroot. Leave it, run
  mount --rbind DIR DIR     (its directory), and enter it anew" ;;
        *)
            fail "no device root can be made here. An ordinary user needs user namespaces:
  sudo sysctl kernel.unprivileged_userns_clone=1             (older Debian kernels)
  sudo sysctl user.max_user_namespaces=15000                 (limit set to 0)
  sudo sysctl kernel.apparmor_restrict_unprivileged_userns=0 (denied by AppArmor)
or run this as root. In a container, allow it to mount (for example --privileged)." ;;
    esac
}

# as_root COMMAND...: runs it as root, with sudo where that is needed.
as_root() {
    if [ "$EUID" -eq 0 ]; then
        env DEBIAN_FRONTEND=noninteractive "$@"
    elif type -P sudo >/dev/null; then
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    else
        fail "neither root nor sudo; as root, run: $*"
    fi
}

# build PRESET [CMAKE OPTION...]: configures and builds build/PRESET; only the targets that $build_target
# names, where it is set.
build() {
    local preset=$1 targets
    read -ra targets <<<"${build_target:-all}"
    shift
    step "build: $preset"
    (cd "$project" && cmake --preset "$preset" "$@" &&
        cmake --build --preset "$preset" --target "${targets[@]}") ||
        fail "the build of $preset failed; the reason stands above"
}
