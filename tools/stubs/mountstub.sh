# mountstub.sh - shared part of the mount, mount.cifs and umount stubs that
# the tests put first on the agent's PATH.  Sourced with the stub's own
# arguments; the control files sit beside the stub:
#   <name>.calls  one line per call: the name and its arguments (appended)
#   <name>.exit   exit statuses, one per line for the 1st, 2nd, ... call;
#                 the last line holds for every later call (default 0)
#   <name>.bind   source directory bind-mounted on the target on success
#   <name>.ro     if present, that bind mount is made read-only
# Nothing but mount.cifs reads standard input: the agent's other commands
# inherit its protocol stream there.

stub_dir=$(cd "$(dirname "$0")" && pwd)
stub_name=$(basename "$0")

echo "$stub_name $*" >> "$stub_dir/$stub_name.calls"

# Status for this call from <name>.exit.
stub_status() {
    f="$stub_dir/$stub_name.exit"
    [ -f "$f" ] || { echo 0; return; }
    n=$(grep -c '' "$stub_dir/$stub_name.calls")
    total=$(grep -c '' "$f")
    [ "$total" -gt 0 ] || { echo 0; return; }
    [ "$n" -gt "$total" ] && n=$total
    sed -n "${n}p" "$f"
}

# Second operand of a mount command line (options and their values skipped).
stub_target() {
    src= dst=
    while [ $# -gt 0 ]; do
        case "$1" in
            -o|-t) shift ;;
            -*) ;;
            *) if [ -z "$src" ]; then src=$1; elif [ -z "$dst" ]; then dst=$1; fi ;;
        esac
        shift
    done
    echo "$dst"
}

# Finishes a mount stub: exits with the chosen status, binding on success.
stub_mount() {
    status=$(stub_status)
    [ "$status" -eq 0 ] || exit "$status"
    [ -f "$stub_dir/$stub_name.bind" ] || exit 0
    target=$(stub_target "$@")
    /bin/mount --bind "$(cat "$stub_dir/$stub_name.bind")" "$target" || exit 32
    if [ -f "$stub_dir/$stub_name.ro" ]; then
        /bin/mount -o remount,bind,ro "$target" || exit 32
    fi
    exit 0
}
