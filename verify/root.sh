# Minimal Debian systems (chroots) in which packages are tried. To be sourced after scripts/common.sh. `work` is a
# temporary folder, which the caller sets and removes.
# shellcheck shell=bash

[ "$(id -u)" -eq 0 ] || die 'only root can make a Debian system to install packages in'

# make_root SUITE PACKAGE...: makes the system in $work/SUITE, with these packages, a user named user, and this
# machine's network settings. Sets `root` to its folder and `home` to that of the user.
make_root() {
  local suite=$1 file
  shift
  root=$work/$suite
  home=$root/home/user
  step "A minimal Debian ($suite)"
  debootstrap --variant=minbase "$suite" "$root" ${DEBIAN_MIRROR:+"$DEBIAN_MIRROR"} >"$work/log" 2>&1 ||
    { tail -n 5 "$work/log" >&2; die 'debootstrap failed'; }
  in_root 'useradd --create-home user && apt-get -qq update'
  in_root "apt-get -qq install --no-install-recommends $*"
  mkdir -p "$root/etc/ssl/certs"
  for file in /etc/pip.conf /etc/ssl/certs/ca-certificates.crt; do # after the package of certificates
    if [ -f "$file" ]; then cp "$file" "$root$file"; fi
  done
}

# in_root COMMANDS and as_user COMMANDS run shell commands in `root`, as_user as that user and in its home folder. Their
# mounts and processes end with them. The output goes to $work/log and is printed if they fail.
in_root() {
  unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" chroot "$root" env -i HOME=/root TERM=dumb \
    PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
    bash -euo pipefail -c "$1" >"$work/log" 2>&1 </dev/null ||
    { tail -n 40 "$work/log" >&2; die "failed: $1"; }
}
as_user() {
  in_root "cd /home/user && exec setpriv --reuid=user --regid=user --clear-groups env HOME=/home/user \
    bash -euo pipefail -c $(printf %q "$1")"
}
