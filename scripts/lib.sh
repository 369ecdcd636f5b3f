# Shared by the scripts of the tree, which source it: counting checks, running a step with its output kept, building.
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

# configure FOLDER PRESET [ARGUMENT...]
configure() {
   local folder=$1 preset=$2
   shift 2
   logged "$folder/configure.log" cmake --preset "$preset" -B "$folder" "$@"
}

# build FOLDER [TARGET...]: all of it without a target.
build() {
   local folder=$1
   shift
   logged "$folder/build.log" cmake --build "$folder" -j "$(nproc)" ${1:+--target "$@"}
}

# The sanitizers of these compilers need room that a kernel with more than 28 random bits may take away: what goes before
# a command so that it has it.
choose_layout() {
   fixed_layout=()
   if [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)" -gt 28 ] && setarch -R true 2>/dev/null; then
      fixed_layout=(setarch -R)
   fi
}

# The folder, below /Library, of the copy of the product's services that the daemon runs and deletes.
service_copy='Application Support/Kestra/Kestra Tessel/Services'

# make_product LIBRARY: the sample product's services, copied to where the daemon looks for them.
make_product() {
   mkdir -p "$1/Logs" "$1/$service_copy/Contents/Library/services"
   cp demo/kestra-id "$1/$service_copy/Contents/Library/"
   cp demo/services.sh "$1/$service_copy/Contents/Library/services/"
}

# start_kernel_extensions BUILD FOLDER MILLISECONDS: the stand-in for them, which answers after that time; its process is
# standin_pid, for the caller to end.
start_kernel_extensions() {
   local line=''
   mkdir -p "$2"
   exec {standin}< <(exec "$1/demo/tessel-kext-standin" "$2" "$3" answer)
   standin_pid=$!
   read -r line <&"$standin" || true
   [ "$line" = ready ] || { echo "the stand-in for the kernel extensions did not start" && return 1; }
}
