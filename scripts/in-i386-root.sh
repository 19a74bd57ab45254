#!/usr/bin/env bash
# in-i386-root.sh I386_ROOT SOURCES BUILD FOLDER USER:GROUP COMMAND...: runs COMMAND inside the private i386 root, in
# FOLDER. Called by lib.sh in a mount namespace of its own, so that nothing mounted here outlives the command.
# shellcheck source=scripts/lib.sh
source "$(dirname "$0")/lib.sh"
root=$1 sources=$2 build=$3 folder=$4 user=$5
shift 5

mount --make-rprivate /
# A fresh proc is refused in some containers; the outer one serves as well.
mount -t proc proc "$root/proc" 2>/dev/null || mount --rbind /proc "$root/proc"
for shared in /tmp "$sources" "$build"; do
  mkdir -p "$shared" "$root$shared"
  mount --rbind "$shared" "$root$shared"
done
# The names that package installation looks up are found as outside.
for file in /etc/resolv.conf /etc/hosts; do
  [[ -e $file ]] || continue
  [[ -e $root$file ]] || touch "$root$file"
  mount --bind "$file" "$root$file"
done
# Docker hides nothing there, but a root made by debootstrap has only the most basic devices.
for device in null zero full random urandom tty; do
  [[ -e $root/dev/$device ]] || touch "$root/dev/$device"
  mount --bind "/dev/$device" "$root/dev/$device"
done
# shellcheck disable=SC2016 # expanded by the inner shell
exec chroot --userspec="$user" "$root" /bin/sh -c 'cd "$0" && exec "$@"' "$folder" "$@"
