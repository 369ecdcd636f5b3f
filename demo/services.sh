#!/bin/sh
# The sample product's service script. It has nothing to start or stop, and writes down what it would have done.

journal='/Library/Logs/sample services'

note() {
   printf '%s\n' "$1" >>"$journal"
}

case $1 in
   --start) note 'services started' ;;
   --stopdaemons) note 'daemons stopped' ;;
   --stopkexts) note 'kernel extensions stopped' ;;
   *)
      note "unknown action $1"
      exit 64
      ;;
esac
