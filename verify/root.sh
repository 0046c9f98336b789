# Minimal Debian and Ubuntu systems (chroots) in which packages and builds are tried. To be sourced after
# scripts/common.sh. Sets `work` to a temporary folder, which is removed when the script exits.
# shellcheck shell=bash

[ "$(id -u)" -eq 0 ] || die 'only root can make a minimal system'
need_packages 'to make a minimal system' ca-certificates debootstrap iproute2 zstd

# For the commands that run in a root; a script can set these.
root_environment=() # NAME=VALUE...
root_network=yes
root_terminals=yes # pseudo-terminals, which a minimal chroot does not have
root_log_lines=40  # of a failed command that are printed, as for tail -n

work=$(mktemp -d)
chmod 755 "$work"
trap '[ -z "${root_process:-}" ] || { kill -KILL "$root_process" && wait "$root_process"; } || true
  rm -rf --one-file-system "$work"' EXIT
trap 'exit 143' TERM
trap 'exit 130' INT

# in_namespaces [OPTION...] COMMAND...: runs a command with mounts and processes that end with it (OPTION: of unshare),
# and its output in $work/log. unshare ignores SIGTERM until the command has ended; if it is killed, so is the command.
in_namespaces() {
  local status=0
  unshare --mount --propagation private --pid --fork --kill-child "$@" >"$work/log" 2>&1 </dev/null &
  root_process=$!
  wait "$root_process" || status=$?
  root_process=
  return "$status"
}

# make_root SUITE PACKAGE...: makes the system in $work/SUITE, with these packages, a user named user, and this
# machine's network settings and certificates. Sets `root` to its folder and `home` to that of the user.
make_root() {
  local suite=$1 components=main mirror=${DEBIAN_MIRROR:-} scripts=/usr/share/debootstrap file
  shift
  root=$work/$suite
  home=$root/home/user
  step "A minimal system ($suite)"
  case $suite in
    noble | resolute)
      # debootstrap of Debian 12 does not know newer releases of Ubuntu, which are made like older ones. Without
      # Ubuntu's keyring it cannot check signatures, and uses Debian's mirror unless a mirror is named.
      cp -r "$scripts" "$work/debootstrap"
      scripts=$work/debootstrap
      [ -e "$scripts/scripts/$suite" ] || ln -s gutsy "$scripts/scripts/$suite"
      components=main,universe
      mirror=$(sed -nE 's|^\s*default_mirror (http://archive.*)|\1|p' "$scripts/scripts/gutsy" | head -n 1)
      ;;
  esac
  in_namespaces --mount-proc env DEBOOTSTRAP_DIR="$scripts" debootstrap --variant=minbase \
    "--components=$components" "$suite" "$root" ${mirror:+"$mirror"} ||
    { tail -n 5 "$work/log" >&2; die 'debootstrap failed'; }
  mkdir -p "$root/dev/pts" "$root/dev/shm"
  ln -sf pts/ptmx "$root/dev/ptmx"
  for file in /etc/resolv.conf /etc/hosts /etc/pip.conf; do
    if [ -f "$file" ]; then cp "$file" "$root$file"; fi
  done
  cp /etc/ssl/certs/ca-certificates.crt "$root/etc/certificates.crt" # the package of certificates may not be installed
  in_root 'useradd --create-home --shell /bin/bash user && apt-get -qq update'
  [ $# -eq 0 ] || in_root "apt-get -qq install --no-install-recommends $*"
}

# Mounts what commands need in the root $1, and runs the others of the arguments there.
# shellcheck disable=SC2016 # the inner shell expands them
enter_root='
  root=$1
  shift
  mount -t proc proc "$root/proc"
  mount -t tmpfs tmpfs "$root/dev/shm"
  if [ "$root_terminals" = yes ]; then
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$root/dev/pts"
  fi
  if [ -n "${CCACHE_DIR:-}" ]; then
    mkdir -p "$root/ccache"
    mount --bind "$CCACHE_DIR" "$root/ccache"
  fi
  if [ "$root_network" != yes ]; then ip link set lo up; fi
  # This shell stays the first process, as root: a process that changes its user no longer ends with unshare.
  chroot "$root" env -i "$@"
  exit'

# in_root COMMANDS and as_user COMMANDS run shell commands in `root`, as_user as that user and in its home folder. Their
# mounts and processes end with them. The output goes to $work/log, and its end is printed if they fail.
in_root() {
  local network=()
  [ "$root_network" = yes ] || network=(--net)
  root_network=$root_network root_terminals=$root_terminals in_namespaces "${network[@]}" \
    bash -euc "$enter_root" bash "$root" HOME=/root TERM=dumb PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive PIP_CERT=/etc/certificates.crt SSL_CERT_FILE=/etc/certificates.crt \
    "${root_environment[@]}" bash -euo pipefail -c "$1" ||
    { tail -n "$root_log_lines" "$work/log" >&2; die "failed: $1"; }
}
as_user() {
  in_root "cd /home/user && exec setpriv --reuid=user --regid=user --clear-groups env HOME=/home/user \
    bash -euo pipefail -c $(printf %q "$1")"
}
