#!/usr/bin/env bash
# in-root.sh ROOT SOURCES BUILD FOLDER USER:GROUP COMMAND...: runs COMMAND inside the private root ROOT, in
# FOLDER. Called by lib.sh in a mount namespace of its own, so that nothing mounted here outlives the command.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"
root=$1 sources=$2 build=$3 folder=$4 user=$5
shift 5

mount --make-rprivate /
# A fresh proc is refused in some containers; the outer one serves as well.
mount -t proc proc "$root/proc" 2>/dev/null || mount --rbind /proc "$root/proc"
mount --rbind /dev "$root/dev"
shared=(/tmp "$sources")
[[ $build == "$sources"/* ]] || shared+=("$build")
for path in "${shared[@]}"; do
  [[ -d $path && -d $root$path ]] || mkdir -p "$path" "$root$path"
  mount --rbind "$path" "$root$path"
done
# shellcheck disable=SC2016 # expanded by the inner shell
exec chroot --userspec="$user" "$root" /bin/sh -c 'cd "$0" && exec "$@"' "$folder" "$@"
