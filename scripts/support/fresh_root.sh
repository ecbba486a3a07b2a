# A fresh Debian in a folder, for scripts that must see or change nothing of this machine's packages.
# To be sourced by scripts that run as root, in the project's folder.

fresh_suite=bookworm

# The first repository of the suite that this machine's own apt takes packages from.
fresh_mirror() {
  local uri
  uri=$(apt-get indextargets --format '$(REPO_URI)' "Codename: $fresh_suite" "Component: main" "Created-By: Packages" |
    head -n 1)
  if [[ -z $uri ]]; then
    uri=$(apt-get indextargets --format '$(REPO_URI)' "Suite: $fresh_suite" "Created-By: Packages" | head -n 1)
  fi
  if [[ -z $uri ]]; then
    echo "This machine's apt knows no repository of Debian $fresh_suite: add one to its sources." >&2
    return 1
  fi
  echo "$uri"
}

# fresh_requirements SCRIPT: ends the script when it cannot make a root.
fresh_requirements() {
  if [[ $(id -u) -ne 0 ]]; then
    echo "A root of its own takes root's rights: sudo $1" >&2
    exit 1
  fi
  if ! command -v debootstrap >/dev/null; then
    scripts/setup --root
  fi
}

# make_fresh_root FOLDER: the smallest Debian there is, which fetches packages as this machine does.
make_fresh_root() {
  local root=$1 mirror
  mirror=$(fresh_mirror)
  debootstrap --variant=minbase --components=main "$fresh_suite" "$root" "$mirror"
  # Every component of the suite and its updates that this machine takes from the same place.
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' "Created-By: Packages" |
    awk -v suite="$fresh_suite" '$2 ~ "^" suite && $3 == "main" { print "deb", $1, $2, $3 }' |
    sort -u >"$root/etc/apt/sources.list"
  # How to fetch is this machine's own: proxies and the like.
  apt-config dump Acquire | grep -E '^Acquire::(http|https|Check-|Retries|Proxy)' \
    >"$root/etc/apt/apt.conf.d/90fetching" || true
  cp -L /etc/resolv.conf /etc/hosts "$root/etc/" 2>/dev/null || true
}

# Folders of this machine that are seen there too, as FROM=TO.
fresh_binds=()

# in_fresh_root FOLDER [NAME=VALUE…] COMMAND…: runs it as a newcomer's shell would, with nothing of this
# machine's environment. Its mounts and whatever it leaves running end with it.
in_fresh_root() {
  local root=$1
  shift
  unshare --mount --pid --fork --kill-child -- bash -c '
    set -euo pipefail
    root=$1
    binds=$2
    shift 2
    mount --make-rprivate /
    mount -t proc proc "$root/proc"
    mount --rbind /sys "$root/sys"
    mount -t tmpfs -o mode=755 dev "$root/dev"
    for node in null zero full random urandom tty; do
      touch "$root/dev/$node"
      mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
    mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    ln -s /proc/self/fd/0 "$root/dev/stdin"
    ln -s /proc/self/fd/1 "$root/dev/stdout"
    ln -s /proc/self/fd/2 "$root/dev/stderr"
    while IFS="=" read -r from to; do
      [[ -n $from ]] || continue
      mkdir -p "$root$to"
      mount --bind "$from" "$root$to"
    done <<<"$binds"
    exec chroot "$root" /usr/bin/env -i HOME=/root USER=root TERM=dumb \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"
  ' fresh "$root" "$(printf '%s\n' "${fresh_binds[@]}")" "$@" </dev/null &
  fresh_pid=$!
  # unshare and the first process of such a machine take no notice of gentler signals.
  trap 'kill -KILL "$fresh_pid"; exit 130' INT TERM HUP
  local status=0
  wait "$fresh_pid" || status=$?
  trap - INT TERM HUP
  return "$status"
}

# clone_into_fresh_root FOLDER: what is committed here, as a newcomer clones it, in /root/vesk there.
clone_into_fresh_root() {
  git clone --quiet --no-local "$PWD" "$1/root/vesk"
  git -C "$1/root/vesk" remote remove origin
}
