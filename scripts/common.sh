# Sourced by the other scripts, before they change the folder: . "$(dirname "$0")/common.sh"
# shellcheck shell=sh

scripts=$(cd "$(dirname "$0")" && pwd)  # the folder of the calling script

# Prints the comment at the top of the calling script and exits with STATUS (2 by default).
usage() {
  sed -n '2,/^set/{/^#/s/^# \{0,1\}//p}' "$scripts/${0##*/}" >&2
  exit "${1-2}"
}

# Prints the library's data directory, without the slash at its end. A public header defines it.
data_directory() {
  sed -n 's,.*kDataDirectory = "\(.*\)/";,\1,p' "$scripts/../include/ContextDatabase.h"
}
