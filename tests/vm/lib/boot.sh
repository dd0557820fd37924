# shellcheck disable=SC2034  # VM_BOOT_SECONDS and VM_COMMAND_SECONDS are for vmrun
# shellcheck shell=bash
# Runs QEMU, watches the guest reach its command and enforces the time
# limits. Sourced by vmrun; expects VM_RUN, VM_DIR, VM_QEMU_PID and die().

vm_now() { date +%s.%N; }
vm_elapsed() { awk -v a="$1" -v b="$(vm_now)" 'BEGIN { printf "%.1f", b - a }'; }
vm_older_than() { awk -v a="$1" -v b="$(vm_now)" -v s="$2" 'BEGIN { exit !(b - a > s) }'; }

# Prints everything the guest and QEMU said, for a run that went wrong.
vm_report_failure() {
    echo "vmrun: $*" >&2
    local f
    for f in stdout stderr; do
        if [ -s "$VM_RUN/guest/$f" ]; then
            echo "----- guest command $f (so far) -----" >&2
            cat "$VM_RUN/guest/$f" >&2
        fi
    done
    if [ -s "$VM_RUN/qemu.log" ]; then
        echo "----- qemu -----" >&2
        cat "$VM_RUN/qemu.log" >&2
    fi
    echo "----- guest console -----" >&2
    cat "$VM_RUN/console.log" >&2 2>/dev/null
    echo "----- end of guest console -----" >&2
}

vm_stop_qemu() {
    [ -n "${VM_QEMU_PID:-}" ] || return 0
    if kill -0 "$VM_QEMU_PID" 2>/dev/null; then
        kill "$VM_QEMU_PID" 2>/dev/null
        for _ in 1 2 3 4 5 6 7 8 9 10; do
            kill -0 "$VM_QEMU_PID" 2>/dev/null || break
            sleep 0.2
        done
        kill -9 "$VM_QEMU_PID" 2>/dev/null
    fi
    wait "$VM_QEMU_PID" 2>/dev/null
    VM_QEMU_PID=
}

# vm_boot BOOT_TIMEOUT TIMEOUT QEMU_ARGS...
# Sets VM_BOOT_SECONDS and VM_COMMAND_SECONDS; returns 0 when the guest
# reported the command's status, 1 after printing why not.
vm_boot() {
    local boot_timeout=$1 timeout=$2
    shift 2
    local t0 t_started="" rc
    t0=$(vm_now)
    # Should vmrun be killed outright (a test driver's timeout), QEMU goes too.
    local guard=()
    setpriv --pdeathsig KILL true 2>/dev/null && guard=(setpriv --pdeathsig KILL)
    "${guard[@]}" qemu-system-x86_64 "$@" > "$VM_RUN/qemu.log" 2>&1 < /dev/null &
    VM_QEMU_PID=$!
    while kill -0 "$VM_QEMU_PID" 2>/dev/null; do
        if [ -z "$t_started" ]; then
            if [ -e "$VM_RUN/guest/started" ]; then
                t_started=$(vm_now)
                VM_BOOT_SECONDS=$(vm_elapsed "$t0")
            elif vm_older_than "$t0" "$boot_timeout"; then
                vm_stop_qemu
                vm_report_failure "the guest did not reach the command within $boot_timeout s"
                return 1
            fi
        elif vm_older_than "$t_started" "$timeout"; then
            vm_stop_qemu
            vm_report_failure "the command did not finish within $timeout s"
            return 1
        fi
        sleep 0.2
    done
    wait "$VM_QEMU_PID"
    rc=$?
    VM_QEMU_PID=
    [ -n "$t_started" ] && VM_COMMAND_SECONDS=$(vm_elapsed "$t_started")
    if [ ! -e "$VM_RUN/guest/status" ]; then
        vm_report_failure "QEMU exited with status $rc before the guest reported the command's status"
        return 1
    fi
    return 0
}
