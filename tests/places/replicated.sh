# A replicated network file system: GlusterFS with three bricks (the replicas) and two clients, all on
# this machine in a network namespace. Sourced by scripts/places.

server=192.0.2.1 # an address for documentation; GlusterFS takes no loopback address

mount_volume() {
  for program in glusterd glusterfs gluster; do
    command -v $program >/dev/null || skip "no $program here"
  done
  [ -e /dev/fuse ] || skip "no /dev/fuse here: GlusterFS is mounted through it"
  ip addr add $server/32 dev lo || skip "no network in the namespace"
  # Files that GlusterFS keeps outside its bricks must not reach this machine's own folders.
  mkdir -p /var/lib/glusterd /var/log/glusterfs "$W"/brick{1,2,3} "$W"/client{1,2}
  mount -t tmpfs none /var/lib/glusterd
  mount -t tmpfs none /var/log/glusterfs
  mount -t tmpfs none /run
  mkdir -p /run/gluster
  # The bricks lie on an ext4, as replicas need extended attributes.
  make_fs ext4 1g "" ""
  glusterd --log-level ERROR || skip "glusterd does not start"
  until_true gluster pool list
  {
    gluster --mode=script volume create pages replica 3 "$server:$W"/fs/{1,2,3} force &&
      gluster --mode=script volume set pages network.ping-timeout 5 &&
      gluster --mode=script volume start pages
  } >/dev/null || skip "the volume cannot be made"
  until_true all_bricks_run
  for client in 1 2; do
    glusterfs --volfile-server=$server --volfile-id=pages "$W/client$client" ||
      skip "the volume cannot be mounted"
  done
  until_true touch "$W/client1/there"
  until_true test -e "$W/client2/there"
}

# Tries a command for at most 30 seconds.
until_true() {
  local i
  for ((i = 0; i < 150; i++)); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.2
  done
  return 1
}

brick_pid() { gluster volume status pages | awk -v b="$W/fs/$1" '$0 ~ b { print $NF }'; }
all_bricks_run() { [ "$(gluster volume status pages | grep -c '^Brick.* Y ')" -eq 3 ]; }
kill_brick() { kill -KILL "$(brick_pid "$1")"; }
healed() { [ "$(gluster volume heal pages info | grep -c '^Number of entries: 0$')" -eq 3 ]; }

# Restarts dead bricks and waits until their files are healed and both clients see all three.
restore() {
  gluster --mode=script volume start pages force >/dev/null
  until_true all_bricks_run
  gluster --mode=script volume heal pages >/dev/null 2>&1
  until_true healed || return 1
  for client in 1 2; do until_true sees_three "$W/client$client" || return 1; done
}
# The client is connected to all bricks.
sees_three() {
  [ "$(grep -l '^connected *= *1' "$1"/.meta/graphs/active/pages-client-*/private | wc -l)" -eq 3 ]
}

sees_page() { $Q cat --io "$3" "$1" --pages "$2" | cmp -s - "$W/page"; }

# in_turn MODE: both clients put to the same page, twenty times each.
in_turn() {
  local i client
  for ((i = 0; i < 20; i++)); do
    for client in "$a" "$b"; do
      head -c 4096 /dev/urandom | $Q put --io "$1" "$client/$file" 7 >/dev/null || return
    done
  done
}

place_replicated() {
  mount_volume
  local a=$W/client1 b=$W/client2 mode file
  works "$a" buffered direct block

  # One client flushes, the other reads.
  for mode in buffered direct block; do
    file=seen-$mode
    $Q pack --page-size 4K "$W/in" "$a/$file" >/dev/null
    local i old=0
    for ((i = 1; i <= 20; i++)); do
      head -c 4096 /dev/urandom >"$W/page"
      $Q put --io $mode "$a/$file" $i <"$W/page" >/dev/null
      $Q cat --io $mode "$b/$file" --pages $i | cmp -s - "$W/page" || old=$((old + 1))
    done
    if [ $old -eq 0 ]; then
      pass "$mode: 20 pages put on one client are read on the other at once"
    else
      fail "$mode: of 20 pages put on one client, $old had their old bytes on the other"
    fi
    good "$mode: both clients change the same page in turn" in_turn $mode
    # GlusterFS and the kernel each keep a file's length for up to a second.
    good "$mode: one client appends" $Q put --io $mode --append "$a/$file" <"$W/pages"
    sleep 2.5
    good "$mode: the other appends 2.5 s later" $Q put --io $mode --append "$b/$file" <"$W/pages"
    sleep 2.5
    good "$mode: the other client verifies the file" $Q verify "$b/$file"
  done

  # Locks.
  begin_put "$a/seen-block" buffered
  ends "locked by one client, put on the other" IOERR "another program has the file open, or" \
    $Q put "$b/seen-block" 1 <"$W/pages"
  ends "locked by one client, verify on the other" IOERR "in use, or cannot be locked" \
    $Q verify "$b/seen-block"
  end_put "the first client goes on" OK "3 pages written"
  good "then the other can" $Q put "$b/seen-block" 1 <"$W/pages"

  # One of three bricks dies in the middle of each change.
  for mode in buffered direct block; do
    file=one-$mode
    $Q pack --page-size 4K "$W/in" "$a/$file" >/dev/null
    begin_put "$a/$file" $mode
    kill_brick 1
    end_put "one brick dies, put, $mode" OK "3 pages written"
    good "one brick dead, verify, $mode" $Q verify "$b/$file"
    good "one brick dead, tool, $mode" use_tool "$a" $mode
    good "one brick dead, module, $mode" $S change "$a/shapes" $mode 4096
    if restore; then pass "the brick comes back and is healed"; else fail "the brick is not healed"; fi
    good "afterwards, verify on the other client, $mode" $Q verify "$b/tool-$mode"
    good "afterwards, module, $mode" $S read "$b/shapes" $mode 4096
  done

  # Two of three die: no majority.
  for mode in buffered direct block; do
    file=two-$mode
    $Q pack --page-size 4K "$W/in" "$a/$file" >/dev/null
    begin_put "$a/$file" $mode
    mkfifo "$W/packed"
    $Q pack --io $mode --page-size 4K "$W/packed" "$a/new-$mode" \
      >"$W/pack.said" 2>&1 7>&- &
    local pack=$! status
    exec 8>"$W/packed"
    cat "$W/in" >&8
    sleep 0.3
    kill_brick 2
    kill_brick 3
    end_put "two bricks die, put, $mode" IOERR "not connected"
    cat "$W/in" >&8 2>/dev/null
    exec 8>&-
    wait $pack && status=0 || status=$?
    rm "$W/packed"
    judge "two bricks die, pack, $mode" IOERR "not connected" $status "$(cat "$W/pack.said")"
    ends "two bricks dead, verify, $mode" IOERR "too many of its replicas, cannot be reached" \
      $Q verify "$b/$file"
    ends "two bricks dead, pack, $mode" IOERR "too many of its replicas, cannot be reached" \
      $Q pack --io $mode "$W/in" "$a/other"
    if restore; then pass "the bricks come back and are healed"; else fail "the bricks are not healed"; fi
    honest "the file that was put to, $mode" "$b/$file" in
    if [ -e "$a/new-$mode" ]; then
      fail "the interrupted pack left a file"
    else
      pass "the interrupted pack left no file of its name"
    fi
    local left
    left=$(ls -A "$a" | grep '^\.qzpfile-')
    if [ -z "$left" ] || grep -q "unfinished file .*$left could not be removed" "$W/pack.said"; then
      pass "its message names each file that it could not remove: ${left:-none}"
    else
      fail "left behind without a message: $left"
    fi
    rm -f "$a"/.qzpfile-*
    good "works again, $mode" use_tool "$a" $mode
  done
}
