# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2016,SC2154
#
# For scripts that try things in a bare Debian: how to make one, and how to do something inside.

# bareDebian SUITE FOLDER: makes what debootstrap calls minimal in FOLDER, and puts what is
# committed of this project there as /root/ordovan. Packages come from where this machine takes its
# own.
bareDebian() {
   local suite=$1 folder=$2 mirror=
   # A Debian's own mirror has the other suites of Debian, too; that of another system has not.
   # shellcheck source=/dev/null
   if [ "$( . /etc/os-release && echo "$ID" )" = debian ]; then
      mirror=$( apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' \
         "Codename: $( . /etc/os-release && echo "$VERSION_CODENAME" )" | head -n 1 )
   fi
   debootstrap --variant=minbase "$suite" "$folder" ${mirror:+"$mirror"} &&
      cp -L /etc/resolv.conf /etc/hosts "$folder/etc/" &&
      copyApt "$folder" &&
      mkdir "$folder/root/ordovan" &&
      git archive HEAD | tar -x -C "$folder/root/ordovan"
}

# How this machine reaches the mirror.
copyApt() {
   local file
   for file in /etc/apt/apt.conf /etc/apt/apt.conf.d; do
      [ ! -e "$file" ] || cp -a "$file" "$1/etc/apt/" || return 1
   done
}

# inside SYSTEM FOLDER COMMAND: as root, with FOLDER as the current one and the environment of a new
# login. Processes and mounts are the system's own and end with the command.
inside() {
   unshare --mount --pid --fork --kill-child bash -c '
      mount -t proc proc "$1/proc" && mount --rbind /dev "$1/dev" && cd "$1" &&
      exec chroot "$1" /usr/bin/env -i HOME=/root \
         PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
         bash -c "cd \"\$1\" && eval \"\$2\"" _ "$2" "$3"' _ "$1" "$2" "$3"
}

# step WHAT COMMAND...: says how long it took, and how long processors were busy with it. Output
# goes to a file in the folder $logs, whose name is left in $log, and to the terminal when the step
# fails; then the script ends. COMMAND cannot lean on `set -e`.
steps=0
step() {
   local what=$1 times TIMEFORMAT='%R %U %S' status=0
   shift
   steps=$(( steps + 1 ))
   log=$logs/$( printf '%02d-%s' "$steps" "${what//[^A-Za-z0-9.]/-}" | cut -c 1-60 ).log
   times=$( { time "$@" >"$log" 2>&1; } 2>&1 ) || status=$?
   if [ "$status" -ne 0 ]; then
      cat "$log"
      printf '%s: FAILED, see %s\n' "$what" "$log"
      exit 1
   fi
   awk -v what="$what" '{ printf "%-70s %4.0f s, processors %4.0f s\n", what, $1, $2 + $3 }' \
      <<<"$times"
}

# emptyFolder [FOLDER]: makes FOLDER, or a new one when none is named, and prints its name. One that
# has anything in it is refused.
emptyFolder() {
   local folder=${1:-}
   [ -n "$folder" ] || folder=$( mktemp --directory --tmpdir "${0##*/}.XXXXXX" ) || return 1
   mkdir -p "$folder" || return 1
   [ -z "$( ls -A "$folder" )" ] || { echo "${0##*/}: $folder is not empty" >&2; return 1; }
   # debootstrap makes devices and programs in it.
   realpath "$folder"
}

# needSystems [SUITE]: ends the script when bareDebian cannot make SUITE here.
needSystems() {
   case $1 in
      bookworm | trixie) ;;
      *) echo "usage: ${0##*/} [bookworm|trixie [FOLDER]]" >&2; exit 2 ;;
   esac
   [ "$( id -u )" -eq 0 ] ||
      { echo "${0##*/}: needs root, to make a system of its own" >&2; exit 1; }
   command -v debootstrap >/dev/null ||
      { echo "${0##*/}: needs the package debootstrap" >&2; exit 1; }
}
