# Places for which the kernel of this machine may lack modules: NFS, quotas of ext4, failing devices. A
# second Linux kernel runs as a program (user mode Linux) in the place's namespace, with the build
# read-only and the temporary folder. Sourced by scripts/places.

place_foreign_kernel() {
  command -v linux.uml >/dev/null || skip "no user mode Linux here (package user-mode-linux)"
  command -v modprobe >/dev/null || skip "no modprobe here (package kmod)"
  mkdir "$W/uml"
  cat >"$W/init" <<EOF
#!/bin/bash
export PATH=$PATH QZIOP_BUILD=$QZIOP_BUILD
cd $PWD
for file in tests/places/*.sh; do . "\$file"; done
place=foreign-kernel
run_foreign_kernel $W
EOF
  chmod +x "$W/init"
  : >"$W/results"
  TMPDIR=$W linux.uml mem=768M uml_dir="$W/uml" rootfstype=hostfs ro init="$W/init" \
    con=null con0=null,fd:1 </dev/null >"$W/console" 2>&1
  grep -E "^(ok|FAIL|skip) " "$W/results"
  grep -q '^end' "$W/results" || fail "the kernel ended before its last check: $(tail -n 5 "$W/console" | in_one_line)"
}

# The first process of that kernel.
run_foreign_kernel() {
  mount -t proc none /proc
  mount -t sysfs none /sys
  mount -t hostfs none "$1" -o "$1" # for the results only
  exec >>"$1/results" 2>&1 </dev/null
  mount -t tmpfs none /run
  mount -t tmpfs none /tmp # where the tool keeps what comes through a pipe
  mkdir -p /run/modules/lib/modules
  ln -s "/usr/lib/uml/modules/$(uname -r)" /run/modules/lib/modules/
  local module
  for module in loop quota_v2 nfsd nfsv3 nfsv4 dm-flakey; do
    modprobe -d /run/modules $module || echo "no module $module"
  done
  mount -t tmpfs none /mnt
  W=/mnt
  mkdir "$W"/{fs,nfs3,nfs4}
  ip link set lo up
  make_payloads
  for check in ext4_quota failing_device nfs; do
    place=$check
    place=${place//_/-}
    (in_kernel_"$check")
  done
  echo end
  sync
  halt -d -f -p
}

in_kernel_ext4_quota() {
  make_fs ext4 100m "-O quota" "quota"
  chmod 777 "$W/fs"
  $Q pack --page-size 4K "$W/in" "$W/fs/file" >/dev/null
  chown 1000 "$W/fs/file"
  setquota -u 1000 11000 11000 0 0 "$W/fs" || skip "no quotas"
  seq 5000000 | head -c 30000000 >"$W/large"
  local mode as_user="setpriv --reuid 1000 --clear-groups"
  for mode in buffered direct block; do
    ends "pack, $mode" IOERR "Disk quota exceeded" \
      $as_user $Q pack --io $mode --page-size 4K "$W/in" "$W/fs/new"
    nothing_left "$W/fs" new
    ends "append, $mode" IOERR "Disk quota exceeded" \
      $as_user $Q put --io $mode "$W/fs/file" --append <"$W/large"
    honest "the file, $mode" "$W/fs/file" in
  done
  umount "$W/fs"
}

# A device that turns from working to failing all writes, then all reads and writes.
in_kernel_failing_device() {
  local device sectors mode
  truncate -s 100m "$W/disk"
  device=$(losetup -f --show "$W/disk")
  sectors=$(blockdev --getsz "$device")
  table() { # table WORDS OF THE TARGET
    dmsetup --noudevsync suspend --noflush --nolockfs disk && echo "0 $sectors $*" | dmsetup load disk &&
      dmsetup --noudevsync resume disk
  }
  for mode in buffered direct block; do
    echo "0 $sectors linear $device 0" | dmsetup --noudevsync create disk || skip "no device mapper"
    dmsetup mknodes disk
    mkfs.ext4 -q -F /dev/mapper/disk
    mount /dev/mapper/disk "$W/fs"
    $Q pack -f --page-size 4K "$W/in" "$W/fs/file" >/dev/null
    sync
    begin_put "$W/fs/file" $mode
    table flakey "$device" 0 0 60 1 error_writes
    end_put "put, $mode, the device failing writes meanwhile" FAILURE ""
    ends "pack, $mode, the same" FAILURE "" $Q pack --io $mode "$W/in" "$W/fs/new"
    table error
    echo 3 >/proc/sys/vm/drop_caches
    ends "verify, $mode, the device failing all" FAILURE "" $Q verify "$W/fs/file"
    table linear "$device" 0
    umount "$W/fs"
    mount /dev/mapper/disk "$W/fs"
    honest "the file, $mode, with the device back" "$W/fs/file" in put
    umount "$W/fs"
    dmsetup --noudevsync remove disk
    rm -f /dev/mapper/disk
  done
  losetup -d "$device"
}

start_server() { rpc.nfsd 4; }
stop_server() { rpc.nfsd 0; }

in_kernel_nfs() {
  local version mode
  make_fs ext4 200m "" ""
  mount -t tmpfs none /var/lib/nfs
  mkdir -p /var/lib/nfs/{sm,sm.bak,v4recovery,rpc_pipefs} /run/rpcbind
  touch /var/lib/nfs/{etab,rmtab,xtab}
  mount -t nfsd nfsd /proc/fs/nfsd
  rpcbind
  echo 1 >/proc/fs/nfsd/nfsv4gracetime 2>/dev/null
  exportfs -o rw,no_root_squash,insecure,fsid=0 127.0.0.1:"$W/fs"
  start_server 2>/dev/null
  rpc.mountd 2>/dev/null
  rpc.statd 2>/dev/null
  mount -t nfs -o vers=3,soft,timeo=10,retrans=1 127.0.0.1:"$W/fs" "$W/nfs3" || skip "no NFS 3"
  mount -t nfs -o vers=4.2,soft,timeo=10,retrans=1 127.0.0.1:/ "$W/nfs4" || skip "no NFS 4.2"
  for version in 3 4; do
    place=nfs-$version
    works "$W/nfs$version" buffered buffered buffered
    $Q pack -f --page-size 4K "$W/in" "$W/nfs$version/file" >/dev/null
    good "the server verifies the file" $Q verify "$W/fs/file"
    begin_put "$W/nfs$version/file" buffered
    ends "locked by the client, put on the server" IOERR "another program has the file open, or" \
      $Q put "$W/fs/file" 1 <"$W/pages"
    end_put "the client goes on" OK "3 pages written"
    begin_put "$W/nfs$version/file" buffered
    stop_server
    end_put "put, the server stopped meanwhile" FAILURE "it is not known whether"
    ends "verify, the server stopped" FAILURE "" $Q verify "$W/nfs$version/file"
    start_server 2>/dev/null
    sleep 3
    honest "the file, with the server back" "$W/nfs$version/file" in put
  done
}
