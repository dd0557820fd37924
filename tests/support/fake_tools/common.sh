# Shared by the fake tools: the machine's state, the call log, forced failures.
state=${AS_FAKE_MACHINE_STATE:?runs only on a faked machine}
tool=${0##*/}
printf '%s\n' "$tool${*:+ $*}" >>"$state/calls"
while [ -f "$state/hang/$tool" ]; do sleep 0.05; done  # a tool that hangs until released
if [ -f "$state/fail/$tool" ]; then
  echo "$tool: failing as the test asked" >&2
  exit "$(cat "$state/fail/$tool")"
fi

# The mount point of a device, empty when it is not mounted.
mount_point_of() {
  awk -v d="$1" '{ p = index($0, " ") } substr($0, 1, p - 1) == d { print substr($0, p + 1); exit }' "$state/mounts"
}
