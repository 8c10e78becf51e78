# Places that the kernel of this machine makes. Sourced by scripts/places.

# small_pages MODE: on sectors of 512 bytes pages of 512 bytes must work, in this mode where direct I/O
# is asked for.
small_pages() {
  ends "pages of 512 bytes" OK "I/O $1" $Q pack --io direct --page-size 512 "$W/in" "$W/fs/small"
  good "pages of 512 bytes, verify" $Q verify "$W/fs/small"
}

place_ext4() {
  make_fs ext4 100m "" ""
  works "$W/fs" buffered direct block
  small_pages direct
}

place_ext4_1k() {
  make_fs ext4 100m "-b 1024" ""
  works "$W/fs" buffered direct block
  small_pages direct
}

# The kernel takes O_DIRECT here and still uses its cache: the tool must obtain buffered I/O.
place_ext4_journalled() {
  make_fs ext4 100m "" "data=journal"
  works "$W/fs" buffered buffered buffered
}

place_large_sectors() {
  make_fs ext4 100m "-b 4096" "" 4096
  works "$W/fs" buffered direct block
  ends "pages of 512 bytes, direct" USAGE "multiples of 4096 bytes" \
    $Q pack --io direct --page-size 512 "$W/in" "$W/fs/small"
  ends "pages of 512 bytes, auto" OK "I/O buffered (asked: auto" \
    $Q pack --page-size 512 "$W/in" "$W/fs/small"
}

place_xfs() {
  make_fs xfs 400m "" ""
  works "$W/fs" buffered direct block
  small_pages direct
}

place_btrfs() {
  make_fs btrfs 300m "" ""
  works "$W/fs" buffered direct block
}

place_btrfs_nocow() {
  make_fs btrfs 300m "" "nodatacow"
  works "$W/fs" buffered direct block
}

place_btrfs_compressed() {
  make_fs btrfs 300m "" "compress-force=zstd"
  works "$W/fs" buffered direct block
}

place_overlay() {
  make_fs ext4 200m "" ""
  grep -qw overlay /proc/filesystems || skip "this kernel has no overlayfs"
  mkdir "$W"/fs/{lower,upper,work} "$W/all"
  $Q pack --page-size 4K "$W/in" "$W/fs/lower/below" >/dev/null
  mount -t overlay -o "lowerdir=$W/fs/lower,upperdir=$W/fs/upper,workdir=$W/fs/work" none "$W/all" ||
    skip "cannot mount an overlay"
  works "$W/all" buffered direct block
  good "a file of the lower layer is changed" change "$W/all/below" block
  good "the change is seen" holds "$W/all/below" want
  good "the lower layer keeps its file" holds "$W/fs/lower/below" in
}

place_read_only() {
  make_fs ext4 100m "" ""
  $Q pack --page-size 4K "$W/in" "$W/fs/file" >/dev/null
  for mode in buffered direct block; do $S change "$W/fs/shapes-$mode" $mode 4096 >/dev/null; done
  mount -o remount,ro "$W/fs"
  good "verify" $Q verify "$W/fs/file"
  for mode in buffered direct block; do
    good "module, $mode: reads" $S read "$W/fs/shapes-$mode" $mode 4096
    ends "put, $mode" CANTCREAT "Read-only file system" $Q put --io $mode "$W/fs/file" 3 <"$W/pages"
    ends "pack, $mode" CANTCREAT "Read-only file system" $Q pack --io $mode "$W/in" "$W/fs/new"
  done
  ends "truncate" CANTCREAT "Read-only file system" $Q truncate "$W/fs/file" 5
  ends "rm" CANTCREAT "Read-only file system" $Q rm "$W/fs/file"
  good "the file is as before" holds "$W/fs/file" in
}

# The file system turns read-only during a put, as ext4 with errors=remount-ro does after an error of
# its device.
place_turned_read_only() {
  for mode in buffered direct block; do
    make_fs ext4 100m "" "errors=remount-ro"
    $Q pack --page-size 4K "$W/in" "$W/fs/file" >/dev/null
    sync
    [ -w "/sys/fs/ext4/$loop/trigger_fs_error" ] || skip "this kernel makes no ext4 error on demand"
    begin_put "$W/fs/file" $mode
    echo test >"/sys/fs/ext4/$loop/trigger_fs_error"
    end_put "put, $mode, turned read-only meanwhile" CANTCREAT "Read-only file system"
    ends "pack, $mode, afterwards" CANTCREAT "Read-only file system" \
      $Q pack --io $mode "$W/in" "$W/fs/new"
    honest "the file, $mode" "$W/fs/file" in
    umount "$W/fs"
  done
}

# The file behind the loop device loses its second half, which ext4 then reads as zeros.
place_device_shrunk() {
  make_fs ext4 100m "" ""
  for i in 1 2 3 4 5 6 7 8; do $Q pack --page-size 4K "$W/in" "$W/fs/$i" >/dev/null; done
  umount "$W/fs"
  mount -o loop "$W/image" "$W/fs"
  truncate -s 40m "$W/image"
  for i in 1 4 8; do honest "file $i of 8" "$W/fs/$i" in; done
  ends "put" IOERR "Input/output error" $Q put "$W/fs/8" 3 <"$W/pages"
}

place_device_shut_down() {
  command -v xfs_io >/dev/null || skip "no xfs_io here"
  for mode in buffered direct block; do
    make_fs xfs 400m "" ""
    $Q pack --page-size 4K "$W/in" "$W/fs/file" >/dev/null
    begin_put "$W/fs/file" $mode
    xfs_io -x -c "shutdown -f" "$W/fs"
    end_put "put, $mode, the device gone meanwhile" IOERR "Input/output error"
    ends "verify" IOERR "Input/output error" $Q verify "$W/fs/file"
    ends "pack, $mode" IOERR "Input/output error" $Q pack --io $mode "$W/in" "$W/fs/new"
    umount "$W/fs"
    mount -o loop "$W/image" "$W/fs"
    honest "the file, $mode, after the next mount" "$W/fs/file" in
    nothing_left "$W/fs" new
    umount "$W/fs"
  done
}

# Quotas of btrfs. Those of ext4 are not in every kernel; foreign_kernel.sh has them.
place_quota() {
  make_fs btrfs 300m "" ""
  $Q pack --page-size 4K "$W/in" "$W/fs/file" >/dev/null
  btrfs quota enable "$W/fs" && btrfs qgroup limit 14M "$W/fs" || skip "btrfs has no quotas here"
  sync
  seq 9000000 | head -c 30000000 >"$W/large"
  for mode in buffered direct block; do
    ends "pack, $mode" IOERR "Disk quota exceeded" \
      $Q pack --io $mode --page-size 4K "$W/large" "$W/fs/new"
    nothing_left "$W/fs" new
    ends "append, $mode" IOERR "Disk quota exceeded" append "$W/fs/file" $mode
    honest "the file, $mode" "$W/fs/file" in
  done
}
append() { $Q put --io "$2" "$1" --append <"$W/large"; }

# mount_faulty FAULT: mounts qzpfaultyfs at $W/fs, which passes all calls on to the folder $W/real.
mount_faulty() {
  [ -x "$QZIOP_BUILD/qzpfaultyfs" ] || skip "qzpfaultyfs is not built: no libfuse3-dev here"
  [ -e /dev/fuse ] || skip "no /dev/fuse here"
  mkdir -p "$W/fs" "$W/real"
  "$QZIOP_BUILD/qzpfaultyfs" "$1" "$W/real" "$W/fs" || skip "cannot mount a FUSE file system"
}

place_fuse() {
  mount_faulty none
  works "$W/fs" buffered direct block
}

place_fuse_refuses_direct() {
  mount_faulty refuse-direct
  works "$W/fs" buffered buffered buffered
}

# faulty_reads WORDS: files that were made in $W/real are read through the faulty file system, which
# must either fail with these words or give the right bytes.
faulty_reads() {
  $Q pack --page-size 4K "$W/in" "$W/real/file" >/dev/null
  for mode in buffered direct block; do
    $S change "$W/real/shapes" buffered 4096 >/dev/null
    right_or_refused "unpack, $mode" "$1" "$Q unpack --io $mode $W/fs/file - | cmp - $W/in"
    right_or_refused "module, $mode" "" "$S read $W/fs/shapes $mode 4096"
  done
  right_or_refused "verify" "$1" "$Q verify $W/fs/file"
}
right_or_refused() {
  local said status
  said=$(set -o pipefail; eval "$3" 2>&1) && status=0 || status=$?
  if [ $status -eq 0 ]; then
    pass "$1: the right bytes"
  elif [[ $said == *"$2"* && $said != *differ* && $said != *"not as written"* ]]; then
    pass "$1: refused: $(in_one_line <<<"$said" | sed "s,$W/,,g" | cut -c1-150)"
  else
    fail "$1: $(in_one_line <<<"$said")"
  fi
}

place_fuse_short_reads() {
  mount_faulty short-reads
  faulty_reads "cannot read"
}

place_fuse_interrupted() {
  mount_faulty interrupted
  faulty_reads "cannot read"
}

place_fuse_failing_writes() {
  mount_faulty failing-writes
  for mode in buffered direct block; do
    ends "pack, $mode" IOERR "Input/output error" \
      $Q pack --io $mode --page-size 4K "$W/in" "$W/fs/new"
    nothing_left "$W/fs" new
    $Q pack -f --page-size 4K "$W/in" "$W/real/file" >/dev/null
    ends "append, $mode" IOERR "Input/output error" $Q put --io $mode "$W/fs/file" --append <"$W/pages"
    honest "the file, $mode" "$W/fs/file" in
  done
}

# A server that is lost during a put and comes back later.
place_fuse_lost() {
  mount_faulty lost
  for mode in buffered direct block; do
    $Q pack -f --page-size 4K "$W/in" "$W/fs/file" >/dev/null
    begin_put "$W/fs/file" $mode
    touch "$W/real/.lost"
    end_put "put, $mode, the server gone meanwhile" IOERR "not connected"
    ends "verify" IOERR "too many of its replicas, cannot be reached" $Q verify "$W/fs/file"
    rm "$W/real/.lost"
    honest "the file, $mode, with the server back" "$W/fs/file" in
  done
}
