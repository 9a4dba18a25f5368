# Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#
# Completes command lines of ordovan in bash: subcommands, their options, and names of files. What
# there is to choose from is asked of the command itself, so that it is always what this one has.

_ordovan() {
   local word=${COMP_WORDS[COMP_CWORD]} offered=
   COMPREPLY=()
   if [ "$COMP_CWORD" -eq 1 ]; then
      offered="$( "${COMP_WORDS[0]}" --help 2>/dev/null |
         sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p' ) --help --version"
   elif [[ $word == -* ]]; then
      offered=$( "${COMP_WORDS[0]}" "${COMP_WORDS[1]}" --help 2>/dev/null |
         sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z][a-z-]*\).*/\2/p' )
   fi
   # Without a word to choose from, bash offers names of files.
   mapfile -t COMPREPLY < <( compgen -W "$offered" -- "$word" )
}
complete -o default -F _ordovan ordovan
