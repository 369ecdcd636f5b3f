# Shared by the scripts of this folder, which source it: counting checks, running a step with its output kept.
# shellcheck shell=bash

passed=0 failed=0 skipped=0

count() {
   passed=$((passed + $1)) failed=$((failed + $2)) skipped=$((skipped + $3))
}

# The closing line; the status is that of the whole run.
print_counts() {
   echo "$passed passed, $failed failed, $skipped skipped"
   [ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
}

# logged LOG COMMAND...: runs the command with its output in LOG. A failure shows the end of it, without the steps
# that went well.
logged() {
   local log=$1
   shift
   mkdir -p "$(dirname "$log")"
   if ! "$@" >"$log" 2>&1 </dev/null; then
      sed -E '/^\[[0-9]+\/[0-9]+\] /d' "$log" | tail -n 60
      echo "failed: $* (all of its output: $log)"
      return 1
   fi
}

# check NAME COMMAND...: one check that passes if the command succeeds; the start of its output is shown if not.
check() {
   local name=$1 output
   shift
   if output=$("$@" 2>&1 </dev/null); then
      count 1 0 0
      echo "passed: $name"
   else
      count 0 1 0
      echo "FAILED: $name"
      [ -z "$output" ] || head -n 200 <<<"   ${output//$'\n'/$'\n'   }"
   fi
}
