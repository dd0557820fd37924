# Shared by the fake tools: the machine's state, the call log, forced failures.
state=${AS_FAKE_MACHINE_STATE:?runs only on a faked machine}
tool=${0##*/}
printf '%s\n' "$tool${*:+ $*}" >>"$state/calls"
while [ -f "$state/hang/$tool" ]; do sleep 0.05; done  # a tool that hangs until released
if [ -f "$state/fail/$tool" ]; then
  echo "$tool: failing as the test asked" >&2
  exit "$(cat "$state/fail/$tool")"
fi
