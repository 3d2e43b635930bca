#!/usr/bin/env bash
# ferndrop side by side with the minimal work of a delivery and with its
# peers (procmail, maildrop, Dovecot's LDA), in one run, on this machine.
#
# Every program gets the same message on a pipe (2 KB, 64 KB, 1 MB, 10 MB)
# and stores it into a maildir on the same file system, as the same non-root
# user (nobody). Reported: medians and ratios to the minimal C program
# (bench/minimal.c), system calls (strace -c), user-space instructions
# (callgrind) and peak resident memory (GNU time).
#
# Rows:
#   minimal        bench/minimal.c: spool, copy into tmp (written out),
#                  rename, fsync of new and of the file (ferndrop's order;
#                  on an ext4 with its journal, of new alone, as ferndrop)
#   minimal-nosync the same without the fsync of new (procmail makes none)
#   minimal+registry  the minimal program, first asking the handler registry
#                  what a delivery must ask (static, with SQLite, as ferndrop)
#   minimal+duties minimal+registry with what else every ferndrop run must do:
#                  syslog start and summary lines, the settings and .qmail
#                  files read, the input digested, the parent's stat line, the
#                  Message-ID and the delivery-state lookup (Tokyo Cabinet)
#   minimal+duties+lda  the same duties with no .qmail (so no state lookup),
#                  then Dovecot's LDA reading the spool file, started by the
#                  path ferndrop starts it by
#   ferndrop       no handler applies (registry of 1,000 rows), .qmail with one
#                  maildir line
#   ferndrop+lda   no .qmail: INBOX through Dovecot's LDA
#   lda            Dovecot's LDA alone (dovecot-lda -d)
#   minimal+lda    bench/minimal.c --then: spool file, then Dovecot's LDA
#                  reading it, the floor for any agent in front of the LDA
#   ferndrop+lmtp  no .qmail: INBOX through Dovecot's LMTP server (store lmtp:unix:...)
#   lmtp           bench/minimal.c --lmtp: the smallest LMTP client, the same server
#   minimal+duties+lmtp  the duties with no .qmail, then the spool file sent by
#                  that client: the floor for ferndrop+lmtp
#   procmail       rc file with a maildir DEFAULT
#   maildrop       filter file with one maildir "to"
#   cat+sync       sh -c 'cat > file && sync file'
#   feed-only      the pipe feeding and one process start, nothing else
#   registry-floor bench/registry_floor.c (counts only): the registry lookups
#                  of one delivery with Debian's SQLite and nothing else
#
# Load mode: a fixed batch (2,000 deliveries of 4 KB, each with a Message-ID
# of its own) at 1, 4, 16 and 64 in flight, into one mailbox and spread over
# 200, for ferndrop (maildir line; INBOX through the LDA; through LMTP),
# procmail, maildrop, the LDA alone, the smallest LMTP client and the minimal
# program with and without the registry and the duties: deliveries per second
# and p50/p99 latency, every batch checked for exactly as many stored messages
# as deliveries.
#
# usage (as root, from anywhere):
#   bench/compare.sh [--quick] [--link-variants] [--report FILE]
#     --quick          fewer runs (a smoke test, not figures)
#     --link-variants  also relinks ferndrop fully static / with static
#                      archives / with shared libraries and compares them
#     --report FILE    also write the Markdown report to FILE
#     --before BINARY  also runs BINARY (an earlier build of ferndrop) as the
#                      rows "before" (maildir line), "before+lda" and
#                      "before+lmtp" (INBOX), in the same rounds, for a
#                      before-and-after table
#     --counts-only    skip the timing (system calls, instructions, memory)
#     --no-load        skip the load mode
#     --load-only      only the load mode
#     --load-rounds N  repeat every batch N times, rows interleaved (default 1);
#                      the report gives the medians over the rounds
#     --spool-tmpfs    ferndrop's spool directory and the minimal program's on
#                      a tmpfs (the stores stay on the disk)
#     --journal-fs     everything on an ext4 with a journal, in an image file
#                      on a loop device (for a disk whose ext4 has none)
# FERNDROP_BENCH_LOAD_ROWS and FERNDROP_BENCH_LOAD_INFLIGHT narrow the load
# mode to some rows and in-flight counts (blank-separated lists), and
# FERNDROP_BENCH_ROWS the rows of the rest.
# FERNDROP_BUILD_DIR picks the build tree (default: <repo>/build-bench, a
# release build configured and built here).
#
# Everything happens under one directory in /tmp, inside a private mount
# namespace (overlays over /etc, /usr/local, /var/lib, /usr/libexec and a
# private /dev with its own /dev/log), and is removed at the end.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
bench_uid=65534   # nobody
bench_gid=65534   # nogroup

# ---------------------------------------------------------------------------
# Inside the namespace.
# ---------------------------------------------------------------------------
if [ "${1:-}" = --inside ]; then
  T="$2"; quick="$3"; variants="$4"; counts_only="$5"; load="$6"; load_rounds="$7"; spool_tmpfs="$8"; journal_fs="$9"
  # shellcheck source=/dev/null
  . "$T/env"
  H="$T/bin/harness"
  S="$T/fs"                        # every store lives here, on one file system
  M="$T/mail"                      # the mailnames tree (-p)
  out="$T/out"
  sender=sender@bench-from.org
  # --journal-fs: the stores, the spool and the mailnames on an ext4 with a
  # journal (the way mail hosts run it), made in an image file under $T and
  # mounted in this namespace only.
  if [ "$journal_fs" = 1 ]; then
    truncate -s 4G "$T/disk.img"
    mkfs.ext4 -q -F "$T/disk.img"
    mkdir -p "$T/disk"
    mount -o loop "$T/disk.img" "$T/disk"
    chmod 0755 "$T/disk"
    S="$T/disk/fs"; M="$T/disk/mail"
  fi
  pids=()
  stop_services() {
    if [ -f "$T/dovecot-run/master.pid" ]; then
      local p; p="$(cat "$T/dovecot-run/master.pid")"
      kill "$p" 2>/dev/null || true
      for _ in $(seq 100); do kill -0 "$p" 2>/dev/null || break; sleep 0.05; done
    fi
    local p
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
  }
  trap stop_services EXIT

  # Overlays for the compiled-in paths; the stores themselves are bound in
  # from plain directories, so that no program pays for overlayfs.
  for d in /etc /usr/local /var/lib /usr/libexec; do
    mkdir -p "$T/upper$d" "$T/work$d"
    mount -t overlay overlay -o "lowerdir=$d,upperdir=$T/upper$d,workdir=$T/work$d" "$d"
  done
  if [ -e /usr/bin/deliverquota ]; then
    # A Courier agent would win ferndrop's server detection: hide it.
    mkdir -p "$T/upper/usr/bin" "$T/work/usr/bin"
    mknod "$T/upper/usr/bin/deliverquota" c 0 0
    mount -t overlay overlay -o "lowerdir=/usr/bin,upperdir=$T/upper/usr/bin,workdir=$T/work/usr/bin" /usr/bin
  fi
  # A private /dev: the real device nodes plus a /dev/log that is drained.
  mkdir -p "$T/olddev"
  mount --rbind /dev "$T/olddev"
  mount -t tmpfs -o mode=0755,size=16m tmpfs /dev
  for dev in null zero full random urandom tty; do
    [ -e "$T/olddev/$dev" ] || continue
    touch "/dev/$dev"; mount --bind "$T/olddev/$dev" "/dev/$dev"
  done
  umount -l "$T/olddev"
  ln -s /proc/self/fd /dev/fd; ln -s /proc/self/fd/0 /dev/stdin
  ln -s /proc/self/fd/1 /dev/stdout; ln -s /proc/self/fd/2 /dev/stderr
  mkdir -m 1777 /dev/shm
  "$H" logsink /dev/log "$T/syslog" &
  pids+=($!)
  for _ in $(seq 100); do [ -S /dev/log ] && break; sleep 0.02; done

  mkdir -p /usr/local/qrn/handlers/spool /var/lib/kavra/mail "$S/spool" "$S/kavra/handlers" "$S/kavra/local"
  # --spool-tmpfs: ferndrop's spool directory and the minimal program's in
  # memory, as a host may mount them (nothing reads a spool file after a
  # crash); every store stays on the disk.
  if [ "$spool_tmpfs" = 1 ]; then
    mkdir -p "$S/minspool"
    mount -t tmpfs -o mode=0755,size=512m tmpfs "$S/spool"
    mount -t tmpfs -o mode=0755,size=512m tmpfs "$S/minspool"
  fi
  mount --bind "$S/spool" /usr/local/qrn/handlers/spool
  mount --bind "$S/kavra" /var/lib/kavra/mail
  mkdir -p /usr/libexec/dovecot
  ln -sf /usr/lib/dovecot/dovecot-lda /usr/libexec/dovecot/dovecot-lda

  # The registry: 1,000 rows, none of which applies to this delivery (other
  # addresses and domains, other queues, disabled rows), in the panel's schema
  # with the caseless address index ferndrop-setup adds to any registry.
  sqlite3 "$S/kavra/handlers/handlers.db" "BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, executable, context));CREATE INDEX idx1 ON handlers(queue, type, enabled, address);CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);CREATE INDEX idx3 ON handlers(name, queue, type, address);CREATE INDEX idx4 ON handlers(name, queue, type);CREATE INDEX idx_address_nocase ON handlers(queue, type, enabled, address COLLATE NOCASE, priority);COMMIT;
BEGIN;
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 999)
INSERT INTO handlers
SELECT CASE WHEN i % 5 = 4 THEN 1 + 2 * (i % 2) ELSE 1 + i % 3 END, i % 5, (i % 10) != 0, i % 17, 'h' || i,
       CASE i % 5 WHEN 4 THEN (CASE WHEN i % 2 = 0 THEN 'all' ELSE 'all-recipients' END)
                  WHEN 0 THEN 'user' || i || '@dom' || (i % 100) || '.org'
                  WHEN 1 THEN 'user' || i || '@dom' || (i % 100) || '.org'
                  ELSE 'dom' || (i % 100) || '.org' END,
       '/usr/local/bin/filter' || (i % 50), 'ctx' || i, 0
FROM n;
COMMIT;"
  # Only global rows of queues 1 and 3 or disabled ones name "all": queue 2 is
  # the delivery's queue, so the query for it must find nothing.
  applicable="$(sqlite3 "$S/kavra/handlers/handlers.db" "SELECT count(*) FROM handlers WHERE queue=2 AND enabled=1 AND address IN ('all','all-recipients','$sender','bench-from.org','box@bench.test','inbox@bench.test','bench.test')")"
  [ "$applicable" = 0 ] || { echo "registry: $applicable rows apply" >&2; exit 1; }
  chown root:"$bench_gid" "$S/kavra/handlers/handlers.db"; chmod 0640 "$S/kavra/handlers/handlers.db"
  chown "$bench_uid:$bench_gid" "$S/spool" "$S/kavra/local"

  # Mailboxes: one per program, all alike.
  for box in box inbox lda mlda min pm md cat lmtp lmtpmin mlmtp; do mkdir -p "$M/bench.test/$box"; done
  for box in box min pm md; do mkdir -p "$M/bench.test/$box/Maildir/"{tmp,new,cur}; done
  echo "./Maildir/" > "$M/bench.test/box/.qmail"
  # The load mode's mailboxes: PREFIX-0 to PREFIX-199 for every row.
  if [ "$load" != 0 ]; then
    for box in box inbox lda min pm md lmtp lmtpmin; do
      for i in $(seq 0 199); do
        d="$M/bench.test/$box-$i"
        case "$box" in box | min | pm | md) mkdir -p "$d/Maildir/"{tmp,new,cur} ;; *) mkdir -p "$d" ;; esac
        [ "$box" = box ] && echo "./Maildir/" > "$d/.qmail"
      done
    done
  fi
  mkdir -p "$S/minspool" "$S/catspool" "$T/rc" "$out" "$T/home"
  cat > "$T/rc/procmailrc" <<EOF
MAILDIR=$M/bench.test/pm
DEFAULT=$M/bench.test/pm/Maildir/
EOF
  cat > "$T/rc/mailfilter" <<EOF
to "$M/bench.test/md/Maildir/"
EOF
  cat > "$T/rc/procmailrc-load" <<EOF
MAILDIR=$M/bench.test/pm-\$BOX
DEFAULT=$M/bench.test/pm-\$BOX/Maildir/
EOF
  cat > "$T/rc/mailfilter-load" <<EOF
to "$M/bench.test/md-\$1/Maildir/"
EOF
  chmod 0600 "$T/rc/mailfilter-load"; chmod 0644 "$T/rc/procmailrc-load"
  chmod 0600 "$T/rc/mailfilter"; chmod 0644 "$T/rc/procmailrc"
  chown -R "$bench_uid:$bench_gid" "$M" "$S/minspool" "$S/catspool" "$T/rc" "$out" "$T/home"

  # Dovecot: a private master (no listeners) for the LDA's userdb lookups;
  # every address is served by nobody, home <mailnames>/<domain>/<mailname>.
  mkdir -p /etc/dovecot "$T/dovecot-run"
  cat > /etc/dovecot/dovecot.conf <<EOF
protocols = lmtp
postmaster_address = postmaster@bench.test
ssl = no
base_dir = $T/dovecot-run
first_valid_uid = 1
mail_location = maildir:~/Maildir
passdb {
  driver = passwd-file
  args = /dev/null
}
userdb {
  driver = static
  args = uid=$bench_uid gid=$bench_gid home=$M/%d/%n allow_all_users=yes
}
service lmtp {
  unix_listener lmtp {
    mode = 0666
  }
}
# The LDA reports to the stats service; let it, as a tuned install would.
service stats {
  unix_listener stats-writer {
    mode = 0666
  }
}
EOF
  /usr/sbin/dovecot -c /etc/dovecot/dovecot.conf

  # Messages: headers with a Message-ID (so ferndrop's delivery state is in
  # play) and a body of 76-character lines, cut to the exact size.
  message() {
    local size="$1" file="$2" id="${3:-bench.$1@bench-from.org}"
    {
      printf 'Return-Path: <%s>\nMessage-ID: <%s>\nFrom: Bench <%s>\n' "$sender" "$id" "$sender"
      printf 'To: <box@bench.test>\nSubject: ferndrop benchmark, %s bytes\nDate: Thu, 01 Jan 2026 00:00:00 +0000\n\n' "$size"
      yes 'Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod tem.' | head -c "$size" || true
    } | head -c "$((size - 1))" > "$file" || true
    printf '\n' >> "$file"
    [ "$(stat -c %s "$file")" = "$size" ] || { echo "message $file has the wrong size" >&2; exit 1; }
  }
  declare -A size_of=([2K]=2048 [64K]=65536 [1M]=1048576 [10M]=10485760 [100M]=104857600)
  for s in 2K 64K 1M 10M 100M; do message "${size_of[$s]}" "$T/msg.$s"; done
  # The load message: 4 KB, its Message-ID numbered by the load driver.
  message 4096 "$T/msg.load" load.XXXXXXXXXX@bench-from.org
  chmod 0644 "$T"/msg.*

  # ferndrop's settings: the store route is the one difference between the
  # rows, written before each run (hyperfine's --prepare), outside the timing.
  mkdir -p /etc/ferndrop
  : > "$T/conf.lda"
  echo "store lmtp:unix:$T/dovecot-run/lmtp" > "$T/conf.lmtp"
  cp "$T/conf.lda" /etc/ferndrop/ferndrop.conf
  chown -R "$bench_uid:$bench_gid" /etc/ferndrop
  conf_of() { case "$1" in *+lmtp) echo "$T/conf.lmtp" ;; *) echo "$T/conf.lda" ;; esac; }
  FD="$T/bin/ferndrop"
  declare -A cmd=(
    [minimal]="$T/bin/minimal $S/minspool $M/bench.test/min/Maildir"
    [minimal-nosync]="$T/bin/minimal --no-new-sync $S/minspool $M/bench.test/min/Maildir"
    [minimal+registry]="$T/bin/minimal-registry --registry /var/lib/kavra/mail/handlers/handlers.db $sender box@bench.test $S/minspool $M/bench.test/min/Maildir"
    [minimal+duties]="$T/bin/minimal-duties --duties /etc/ferndrop/ferndrop.conf /var/lib/kavra/mail/local/local.db $M/bench.test/box/.qmail --registry /var/lib/kavra/mail/handlers/handlers.db $sender box@bench.test $S/minspool $M/bench.test/min/Maildir"
    [ferndrop]="$FD -f $sender -d box@bench.test -p $M"
    [ferndrop+lda]="$FD -f $sender -d inbox@bench.test -p $M"
    [lda]="/usr/lib/dovecot/dovecot-lda -d lda@bench.test"
    [minimal+lda]="$T/bin/minimal $S/minspool --then /usr/lib/dovecot/dovecot-lda -d mlda@bench.test"
    [minimal+duties+lda]="$T/bin/minimal-duties --duties /etc/ferndrop/ferndrop.conf /var/lib/kavra/mail/local/local.db $M/bench.test/mlda/.qmail --registry /var/lib/kavra/mail/handlers/handlers.db $sender mlda@bench.test $S/minspool --then /usr/libexec/dovecot/dovecot-lda -d mlda@bench.test"
    [procmail]="/usr/bin/procmail $T/rc/procmailrc"
    [maildrop]="/usr/bin/maildrop $T/rc/mailfilter"
    [cat+sync]="/bin/sh -c 'cat > $S/catspool/m && sync $S/catspool/m'"
    [feed-only]="$H nop"
    [ferndrop+lmtp]="$FD -f $sender -d lmtp@bench.test -p $M"
    [lmtp]="$T/bin/minimal --lmtp $T/dovecot-run/lmtp lmtpmin@bench.test"
    [minimal+duties+lmtp]="$T/bin/minimal-duties --duties /etc/ferndrop/ferndrop.conf /var/lib/kavra/mail/local/local.db $M/bench.test/mlmtp/.qmail --registry /var/lib/kavra/mail/handlers/handlers.db $sender mlmtp@bench.test $S/minspool --lmtp $T/dovecot-run/lmtp mlmtp@bench.test"
  )
  declare -A newdir=(
    [minimal]=min [minimal-nosync]=min [minimal+registry]=min [minimal+duties]=min [ferndrop]=box [ferndrop+lda]=inbox [lda]=lda [minimal+lda]=mlda [minimal+duties+lda]=mlda [procmail]=pm [maildrop]=md
    [ferndrop+lmtp]=lmtp [lmtp]=lmtpmin [minimal+duties+lmtp]=mlmtp
  )
  rows=(minimal minimal-nosync minimal+registry minimal+duties ferndrop ferndrop+lda lda minimal+lda minimal+duties+lda ferndrop+lmtp lmtp minimal+duties+lmtp procmail maildrop cat+sync feed-only)
  if [ -x "$T/bin/before" ]; then
    cmd[before]="$T/bin/before -f $sender -d box@bench.test -p $M"; newdir[before]=box
    cmd[before+lda]="$T/bin/before -f $sender -d inbox@bench.test -p $M"; newdir[before+lda]=inbox
    cmd[before+lmtp]="$T/bin/before -f $sender -d lmtp@bench.test -p $M"; newdir[before+lmtp]=lmtp
    rows+=(before before+lda before+lmtp)
  fi
  if [ "$variants" = 1 ]; then
    for v in "$T"/bin/ferndrop-*; do
      name="${v##*/}"
      cmd[$name]="$v -f $sender -d box@bench.test -p $M"; newdir[$name]=box; rows+=("$name")
    done
  fi
  # FERNDROP_BENCH_ROWS narrows the rows timed and counted, for an experiment.
  [ -z "${FERNDROP_BENCH_ROWS:-}" ] || read -r -a rows <<< "$FERNDROP_BENCH_ROWS"
  printf '%s\n' "${rows[@]}" > "$out/rows"

  as_bench() {
    setpriv --reuid="$bench_uid" --regid="$bench_gid" --clear-groups \
      env -i PATH=/usr/local/bin:/usr/bin:/bin HOME="$T/home" LANG=C "$@"
  }
  clean_mail() {
    find "$M" -path '*/Maildir/*/*' -type f -delete
    rm -f "$S/catspool/m"
  }
  count_new() { { find "$M/bench.test/$1/Maildir/new" -type f 2>/dev/null || true; } | wc -l; }
  # run_row ROW SIZE [WRAPPER...]: one delivery as the bench user, fed by
  # the harness, the row's program under WRAPPER (strace, valgrind, time).
  run_row() {
    local r="$1" size="$2"; shift 2
    cp "$(conf_of "$r")" /etc/ferndrop/ferndrop.conf
    eval "as_bench $H feed $T/msg.$size $* ${cmd[$r]}"
  }

  # --- correctness first: every row delivers the exact message -------------
  echo "== checking every row once (2 KB)"
  for r in "${rows[@]}"; do
    before=0; [ -n "${newdir[$r]:-}" ] && before="$(count_new "${newdir[$r]}")"
    if ! run_row "$r" 2K > "$out/check.$r" 2>&1; then
      echo "row $r failed:"; cat "$out/check.$r"; tail -5 "$T/syslog"; exit 1
    fi
    if [ -n "${newdir[$r]:-}" ]; then
      after="$(count_new "${newdir[$r]}")"
      [ "$after" -eq $((before + 1)) ] || { echo "row $r stored nothing"; tail -5 "$T/syslog"; exit 1; }
    fi
  done
  for r in "${rows[@]}"; do
    case "$r" in minimal|ferndrop) ;; *) continue ;; esac
    f="$(find "$M/bench.test/${newdir[$r]}/Maildir/new" -type f | head -1)"
    cmp -s "$f" "$T/msg.2K" || { echo "row $r: stored copy differs from the message"; exit 1; }
  done
  left="$(find "$S/spool" "$S/minspool" -type f | wc -l)"
  [ "$left" = 0 ] || { echo "spool files left behind: $left"; exit 1; }
  clean_mail

  # --- load ---------------------------------------------------------------
  # Every batch is checked: exactly as many messages stored as deliveries.
  : > "$out/load.tsv"
  if [ "$load" != 0 ]; then
    batch=2000; [ "$quick" = 1 ] && batch=200
    echo "$batch" > "$out/load.batch"
    # FERNDROP_BENCH_LOAD_ROWS and FERNDROP_BENCH_LOAD_INFLIGHT narrow the
    # load mode for an experiment (rows and in-flight counts, blank-separated).
    read -r -a load_rows <<< "${FERNDROP_BENCH_LOAD_ROWS:-ferndrop ferndrop+lda ferndrop+lmtp procmail maildrop lda lmtp minimal minimal+registry minimal+duties}"
    read -r -a load_inflight <<< "${FERNDROP_BENCH_LOAD_INFLIGHT:-1 4 16 64}"
    declare -A lcmd=(
      [minimal]="$T/bin/minimal $S/minspool $M/bench.test/min-%b/Maildir"
      [minimal-nosync]="$T/bin/minimal --no-new-sync $S/minspool $M/bench.test/min-%b/Maildir"
      [minimal+registry]="$T/bin/minimal-registry --registry /var/lib/kavra/mail/handlers/handlers.db $sender box-%b@bench.test $S/minspool $M/bench.test/min-%b/Maildir"
      [minimal+duties]="$T/bin/minimal-duties --duties /etc/ferndrop/ferndrop.conf /var/lib/kavra/mail/local/local.db $M/bench.test/box-%b/.qmail --registry /var/lib/kavra/mail/handlers/handlers.db $sender box-%b@bench.test $S/minspool $M/bench.test/min-%b/Maildir"
      [minimal+duties-nosync]="$T/bin/minimal-duties --duties /etc/ferndrop/ferndrop.conf /var/lib/kavra/mail/local/local.db $M/bench.test/box-%b/.qmail --registry /var/lib/kavra/mail/handlers/handlers.db $sender box-%b@bench.test --no-new-sync $S/minspool $M/bench.test/min-%b/Maildir"
      [ferndrop]="$FD -f $sender -d box-%b@bench.test -p $M"
      [ferndrop+lda]="$FD -f $sender -d inbox-%b@bench.test -p $M"
      [ferndrop+lmtp]="$FD -f $sender -d lmtp-%b@bench.test -p $M"
      [lda]="/usr/lib/dovecot/dovecot-lda -d lda-%b@bench.test"
      [lmtp]="$T/bin/minimal --lmtp $T/dovecot-run/lmtp lmtpmin-%b@bench.test"
      [procmail]="/usr/bin/procmail BOX=%b $T/rc/procmailrc-load"
      [maildrop]="/usr/bin/maildrop $T/rc/mailfilter-load %b"
    )
    if [ -x "$T/bin/before" ]; then
      [ -n "${FERNDROP_BENCH_LOAD_ROWS:-}" ] || load_rows+=(before)
      lcmd[before]="$T/bin/before -f $sender -d box-%b@bench.test -p $M"
    fi
    declare -A lbox=([before]=box [minimal]=min [minimal-nosync]=min [minimal+registry]=min [minimal+duties]=min [minimal+duties-nosync]=min [ferndrop]=box [ferndrop+lda]=inbox [ferndrop+lmtp]=lmtp [lda]=lda
      [lmtp]=lmtpmin [procmail]=pm [maildrop]=md)
    stored() { find "$M/bench.test" -path "$M/bench.test/$1-*/Maildir/new/*" -type f | wc -l; }
    for round in $(seq "$load_rounds"); do
      for inflight in "${load_inflight[@]}"; do
        for boxes in 1 200; do
          echo "== load: round $round, $inflight in flight, $boxes mailboxes"
          n=${#load_rows[@]}
          for i in $(seq 0 $((n - 1))); do
            r="${load_rows[$(( (i + round + inflight) % n ))]}"
            cp "$(conf_of "$r")" /etc/ferndrop/ferndrop.conf
            res="$(as_bench "$H" load "$T/msg.load" "$batch" "$inflight" "$boxes" -- ${lcmd[$r]} 2>> "$out/load.err")" ||
              { echo "load driver failed on $r"; tail -5 "$out/load.err"; exit 1; }
            got="$(stored "${lbox[$r]}")"
            printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$round" "$boxes" "$inflight" "$r" "$res" "$got" >> "$out/load.tsv"
            [ "$got" = "$batch" ] || {
              echo "load: $r, $inflight in flight over $boxes mailboxes: $got stored of $batch"
              tail -5 "$T/syslog"; exit 1
            }
            clean_mail
          done
        done
      done
    done
  fi
  if [ "$load" = only ]; then
    : > "$out/counts.tsv"; : > "$out/rss.tsv"; : > "$out/times.tsv"
    echo 0 > "$out/ferndrop-log-lines"; : > "$out/ferndrop-other-log-lines"
    exit 0
  fi

  # --- timing --------------------------------------------------------------
  # Rounds interleave the rows, so that a change of load during the run hits
  # every row alike; each round is one hyperfine call per size.
  if [ "$counts_only" = 1 ]; then
    plan=()
  elif [ "$quick" = 1 ]; then
    plan=("2K 2 10 3" "64K 1 5 2" "1M 1 4 1" "10M 1 3 1")
  else
    plan=("2K 4 50 5" "64K 3 30 3" "1M 3 12 2" "10M 3 6 1")
  fi
  : > "$out/times.tsv"
  for p in ${plan[@]+"${plan[@]}"}; do
    read -r size rounds runs warmup <<< "$p"
    echo "== timing $size: $rounds rounds x $runs runs"
    for round in $(seq "$rounds"); do
      args=()
      n=${#rows[@]}
      for i in $(seq 0 $((n - 1))); do
        r="${rows[$(( (i + round) % n ))]}"
        args+=(-n "$r" --prepare "cp $(conf_of "$r") /etc/ferndrop/ferndrop.conf" "$H feed $T/msg.$size ${cmd[$r]}")
      done
      as_bench hyperfine -N --style basic --runs "$runs" --warmup "$warmup" \
        --export-json "$out/t.$size.$round.json" "${args[@]}" > "$out/hyperfine.$size.$round.log" 2>&1 ||
        { cat "$out/hyperfine.$size.$round.log"; exit 1; }
      jq -r --arg s "$size" '.results[] | .command as $c | .times[] | "\($s)\t\($c)\t\(.)"' \
        "$out/t.$size.$round.json" >> "$out/times.tsv"
      clean_mail
    done
  done

  # --- system calls, instructions (2 KB) ------------------------------------
  echo "== strace and callgrind (2 KB)"
  : > "$out/counts.tsv"
  for r in "${rows[@]}"; do
    [ "$r" = feed-only ] && continue
    run_row "$r" 2K strace -c -f -o "$out/strace-f.$r" > /dev/null 2>&1 || true
    run_row "$r" 2K strace -c -o "$out/strace.$r" > /dev/null 2>&1 || true
    # Children are traced too (exec chains like Dovecot's LDA -> doveconf ->
    # LDA stay one process), but only the main process is the row's figure:
    # the pid of the first line of the log.
    vcmd="${cmd[$r]}"
    for p in procmail maildrop; do vcmd="${vcmd//\/usr\/bin\/$p /$T/bin/$p.plain }"; done
    eval "as_bench $H feed $T/msg.2K valgrind --tool=callgrind --trace-children=yes \
      --callgrind-out-file=$out/cg.$r.%p $vcmd" > "$out/valgrind.$r.log" 2>&1 || true
    main="$(sed -n '1s/^==\([0-9]*\)==.*/\1/p' "$out/valgrind.$r.log")"
    ir="$(awk '/^(summary|totals):/ { print $2; exit }' "$out/cg.$r.$main" 2>/dev/null || true)"
    all="$(cat "$out"/cg."$r".* 2>/dev/null | awk '/^summary:/ { n += $2 } END { print n + 0 }')"
    tree="$(awk '$NF == "total" { print $4 }' "$out/strace-f.$r" 2>/dev/null || true)"
    own="$(awk '$NF == "total" { print $4 }' "$out/strace.$r" 2>/dev/null || true)"
    printf '%s\t%s\t%s\t%s\t%s\n' "$r" "${own:-?}" "${tree:-?}" "${ir:-?}" "$all" >> "$out/counts.tsv"
  done
  # The registry floor: counted like the rows, never timed.
  rf="$T/bin/registry_floor /var/lib/kavra/mail/handlers/handlers.db $sender box@bench.test"
  as_bench strace -c -o "$out/strace.registry-floor" $rf > /dev/null 2>&1 || true
  as_bench valgrind --tool=callgrind --callgrind-out-file="$out/cg.registry-floor" $rf > /dev/null 2>&1 || true
  ir="$(awk '/^(summary|totals):/ { print $2; exit }' "$out/cg.registry-floor" 2>/dev/null || true)"
  own="$(awk '$NF == "total" { print $4 }' "$out/strace.registry-floor" 2>/dev/null || true)"
  printf 'registry-floor\t%s\t%s\t%s\t%s\n' "${own:-?}" "${own:-?}" "${ir:-?}" "${ir:-0}" >> "$out/counts.tsv"
  # Where ferndrop's own time goes: the call listing and the profile.
  run_row ferndrop 2K strace -f -tt -o "$out/trace.ferndrop" > /dev/null 2>&1 || true
  run_row ferndrop+lda 2K strace -f -tt -o "$out/trace.ferndrop+lda" > /dev/null 2>&1 || true
  run_row lda 2K strace -f -tt -o "$out/trace.lda" > /dev/null 2>&1 || true
  for f in "$out"/cg.ferndrop.*; do
    callgrind_annotate --inclusive=yes "$f" 2>/dev/null | head -60 > "$out/profile.ferndrop" || true
  done
  clean_mail

  # --- peak resident memory --------------------------------------------------
  echo "== peak resident memory"
  : > "$out/rss.tsv"
  for r in "${rows[@]}"; do
    [ "$r" = feed-only ] && continue
    for size in 2K 10M; do
      run_row "$r" "$size" /usr/bin/time -f %M -o "$out/rss.$r.$size" > /dev/null 2>&1 || true
      printf '%s\t%s\t%s\n' "$r" "$size" "$(tail -1 "$out/rss.$r.$size")" >> "$out/rss.tsv"
    done
    clean_mail
  done
  for r in minimal ferndrop; do
    run_row "$r" 100M /usr/bin/time -f %M -o "$out/rss.$r.100M" > /dev/null 2>&1 || true
    printf '%s\t%s\t%s\n' "$r" 100M "$(tail -1 "$out/rss.$r.100M")" >> "$out/rss.tsv"
    clean_mail
  done
  grep -c 'ferndrop\[' "$T/syslog" > "$out/ferndrop-log-lines" || true
  grep -E 'ferndrop\[[0-9]+\]: ' "$T/syslog" | grep -v ': ferndrop: from=' | sed 's/^<[0-9]*>[^]]*]: //' |
    sort | uniq -c | sort -rn | head -5 > "$out/ferndrop-other-log-lines" || true
  exit 0
fi

# ---------------------------------------------------------------------------
# On the host (root): tools, build, sandbox, report.
# ---------------------------------------------------------------------------
quick=0; variants=0; report=""; counts_only=0; load=1; load_rounds=1; before=; spool_tmpfs=0; journal_fs=0
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --link-variants) variants=1 ;;
    --report) report="$2"; shift ;;
    --counts-only) counts_only=1 ;;
    --no-load) load=0 ;;
    --load-only) load=only ;;
    --load-rounds) load_rounds="$2"; shift ;;
    --before) before="$(realpath "$2")"; shift ;;
    --spool-tmpfs) spool_tmpfs=1 ;;
    --journal-fs) journal_fs=1 ;;
    *) echo "usage: $0 [--quick] [--link-variants] [--counts-only] [--no-load|--load-only] [--load-rounds N] [--before BINARY] [--spool-tmpfs] [--journal-fs] [--report FILE]" >&2
       exit 64 ;;
  esac
  shift
done
[ "$counts_only" = 1 ] && [ "$load" = 1 ] && load=0
[ "$(id -u)" = 0 ] || { echo "run as root (apt-get, mount namespace)" >&2; exit 1; }

# The peers and the measuring tools, beside what the build needs.
"$repo/scripts/install-deps.sh" hyperfine procmail maildrop valgrind time jq

build="${FERNDROP_BUILD_DIR:-$repo/build-bench}"
echo "== building ferndrop (release) in $build"
cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERNDROP_TESTS=OFF > /dev/null
cmake --build "$build" -j"$(nproc)" --target ferndrop > /dev/null 2> "$build/bench-build.log" ||
  { cat "$build/bench-build.log"; exit 1; }

T="$(mktemp -d /tmp/ferndrop-bench.XXXXXX)"
# FERNDROP_BENCH_KEEP=DIR keeps the raw results (and the logs of a failure).
trap '[ -z "${FERNDROP_BENCH_KEEP:-}" ] || { mkdir -p "$FERNDROP_BENCH_KEEP"; cp -r "$T/out" "$T/syslog" "$FERNDROP_BENCH_KEEP/" 2>/dev/null; }; rm -rf "$T"' EXIT
chmod 0755 "$T"
mkdir -p "$T/bin"
cp "$build/ferndrop" "$T/bin/ferndrop"
[ -z "$before" ] || cp "$before" "$T/bin/before"
# Valgrind will not run set-id programs as an ordinary user; plain copies
# serve for the instruction counts.
cp /usr/bin/procmail "$T/bin/procmail.plain"; cp /usr/bin/maildrop "$T/bin/maildrop.plain"
gcc -O2 -o "$T/bin/minimal" "$repo/bench/minimal.c"
gcc -O2 -static -o "$T/bin/registry_floor" "$repo/bench/registry_floor.c" -lsqlite3 -lm 2> /dev/null
gcc -O2 -static -DREGISTRY -o "$T/bin/minimal-registry" "$repo/bench/minimal.c" -lsqlite3 -lm 2> /dev/null
gcc -O2 -static -DREGISTRY -DDUTIES -o "$T/bin/minimal-duties" "$repo/bench/minimal.c" \
  -lsqlite3 -ltokyocabinet -lxxhash -lz -lbz2 -lpthread -lm 2> /dev/null
gcc -O2 -static -o "$T/bin/harness" "$repo/bench/harness.c"
if [ "$variants" = 1 ]; then
  # The same objects, linked three more ways: static archives of SQLite and
  # Tokyo Cabinet with the shared C library; shared libraries with static
  # libstdc++; everything shared.
  link="$(cat "$build/CMakeFiles/ferndrop.dir/link.txt")"
  relink() {
    local name="$1"; shift
    local line="$link"
    local pair
    for pair in "$@"; do line="${line//${pair%%=>*}/${pair#*=>}}"; done
    (cd "$build" && eval "${line/ -o ferndrop / -o $T/bin/$name }" 2> /dev/null)
  }
  relink ferndrop-archives " -static =>  -static-libstdc++ -static-libgcc " \
    "-lsqlite3=>-l:libsqlite3.a" "-ltokyocabinet -lz -lbz2=>-l:libtokyocabinet.a -l:libz.a -l:libbz2.a"
  relink ferndrop-shared " -static =>  -static-libstdc++ -static-libgcc "
  relink ferndrop-allshared " -static => "
fi
chmod -R a+rX "$T"
{
  echo "hyperfine_version=\"$(hyperfine --version)\""
} > "$T/env"

load_before="$(cut -d' ' -f1-3 /proc/loadavg)"
start=$(date +%s)
unshare -m --propagation private bash "$0" --inside "$T" "$quick" "$variants" "$counts_only" "$load" "$load_rounds" "$spool_tmpfs" "$journal_fs"
elapsed=$(( $(date +%s) - start ))
load_after="$(cut -d' ' -f1-3 /proc/loadavg)"

# --- report ------------------------------------------------------------------
out="$T/out"
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print ""; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
med() { awk -F'\t' -v s="$1" -v c="$2" '$1 == s && $2 == c { print $3 }' "$out/times.tsv" | median; }
count() { awk -F'\t' -v s="$1" -v c="$2" '$1 == s && $2 == c' "$out/times.tsv" | wc -l; }
ms() { awk -v v="$1" 'BEGIN { if (v == "") print "-"; else printf "%.2f", v * 1000 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "" || b == 0) print "-"; else printf "%.2f", a / b }'; }
mapfile -t rows < "$out/rows"
# Load: medians over the rounds of deliveries per second, p50 and p99.
lmed() {  # LAYOUT INFLIGHT ROW FIELD (5 per second, 6 p50, 7 p99, 9 processor ms)
  awk -F'\t' -v b="$1" -v i="$2" -v r="$3" -v f="$4" '$2 == b && $3 == i && $4 == r { print $f }' "$out/load.tsv" | median
}
load_table() {
  [ -s "$out/load.tsv" ] || return 0
  echo "### Under load: $(cat "$out/load.batch") deliveries of 4 KB per batch, medians over $(cut -f1 "$out/load.tsv" | sort -u | wc -l) round(s)"
  echo
  echo "Deliveries per second / p50 ms / p99 ms; every batch stored exactly its deliveries."
  for boxes in 1 200; do
    echo
    echo "#### $boxes mailbox(es)"
    echo
    echo "| row | 1 in flight | 4 | 16 | 64 |"
    echo "|---|---:|---:|---:|---:|"
    for r in $(awk -F'\t' '{ print $4 }' "$out/load.tsv" | awk '!seen[$0]++'); do
      printf '| %s |' "$r"
      for i in 1 4 16 64; do
        printf ' %s / %s / %s |' "$(lmed "$boxes" "$i" "$r" 5)" "$(lmed "$boxes" "$i" "$r" 6)" "$(lmed "$boxes" "$i" "$r" 7)"
      done
      echo
    done
  done
  echo
  echo "#### Processor time per delivery (ms, user and system), 200 mailboxes"
  echo
  echo "| row | 1 in flight | 4 | 16 | 64 |"
  echo "|---|---:|---:|---:|---:|"
  for r in $(awk -F'\t' '{ print $4 }' "$out/load.tsv" | awk '!seen[$0]++'); do
    printf '| %s |' "$r"
    for i in 1 4 16 64; do printf ' %s |' "$(lmed 200 "$i" "$r" 9)"; done
    echo
  done
  echo
}

(
  echo "### Run"
  echo
  echo "- command: \`bench/compare.sh$([ "$quick" = 1 ] && echo " --quick")$([ "$variants" = 1 ] && echo " --link-variants")$([ "$load" = only ] && echo " --load-only")$([ "$load_rounds" != 1 ] && echo " --load-rounds $load_rounds")$([ -n "$before" ] && echo " --before BINARY")$([ "$spool_tmpfs" = 1 ] && echo " --spool-tmpfs")$([ "$journal_fs" = 1 ] && echo " --journal-fs")\`"
  echo "- machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), kernel $(uname -r)"
  dev="$(basename "$(df /tmp | awk 'NR == 2 { print $1 }')")"
  if [ "$journal_fs" = 1 ]; then
    disk="ext4 with a journal in an image file on a loop device, over $(df -T /tmp | awk 'NR == 2 { print $1 " (" $2 ")" }')"
  else
    disk="$(df -T /tmp | awk 'NR == 2 { print $1 " (" $2 ")" }'), journal: $(ls /proc/fs/jbd2/ 2>/dev/null | grep -q "^$dev-" && echo yes || echo no)"
  fi
  echo "- disk: $disk, rotational=$(cat /sys/block/"$dev"/queue/rotational 2>/dev/null || echo '?'); spool directory: $([ "$spool_tmpfs" = 1 ] && echo tmpfs || echo 'on the disk')"
  echo "- load average before / after: $load_before / $load_after; run time ${elapsed}s; $(. "$T/env"; echo "$hyperfine_version")"
  echo
  if [ ! -s "$out/counts.tsv" ]; then load_table; exit 0; fi
  echo "### Wall time, medians (ms), message on a pipe"
  echo
  printf '| row |'; for s in 2K 64K 1M 10M; do printf ' %s | x min |' "$s"; done; echo
  printf '|---|'; for _ in 2K 64K 1M 10M; do printf -- '---:|---:|'; done; echo
  for r in "${rows[@]}"; do
    printf '| %s |' "$r"
    for s in 2K 64K 1M 10M; do
      m="$(med "$s" "$r")"; base="$(med "$s" minimal)"
      printf ' %s | %s |' "$(ms "$m")" "$(ratio "$m" "$base")"
    done
    echo
  done
  echo
  printf 'Samples per row: '; for s in 2K 64K 1M 10M; do printf '%s %s; ' "$s" "$(count "$s" minimal)"; done; echo
  echo
  echo "### System calls and instructions, 2 KB"
  echo
  echo "| row | syscalls, own process | syscalls, with children | instructions, own process | instructions, with children |"
  echo "|---|---:|---:|---:|---:|"
  mega() { awk -v v="$1" 'BEGIN { if (v + 0 > 0) printf "%.3f M", v / 1e6; else print v }'; }
  while IFS=$'\t' read -r r own tree ir all; do
    printf '| %s | %s | %s | %s | %s |\n' "$r" "$own" "$tree" "$(mega "$ir")" "$(mega "$all")"
  done < "$out/counts.tsv"
  echo
  echo "### Peak resident memory (KB)"
  echo
  echo "| row | 2 KB | 10 MB | 100 MB |"
  echo "|---|---:|---:|---:|"
  for r in "${rows[@]}"; do
    [ "$r" = feed-only ] && continue
    printf '| %s |' "$r"
    for s in 2K 10M 100M; do printf ' %s |' "$(awk -F'\t' -v r="$r" -v s="$s" '$1 == r && $2 == s { print $3 }' "$out/rss.tsv")"; done
    echo
  done
  echo
  load_table
  echo "### Goals"
  echo
  verdict() { awk -v a="$1" -v b="$2" 'BEGIN { if (a == "" || b == "" || a == "-" || b == "-") print "-"; else print (a <= b) ? "met" : "NOT met" }'; }
  f2="$(med 2K ferndrop)"; p2="$(med 2K procmail)"; l2="$(med 2K lda)"
  own_ir="$(awk -F'\t' '$1 == "ferndrop" { print $4 }' "$out/counts.tsv")"
  floor_ir="$(awk -F'\t' '$1 == "registry-floor" { print $4 }' "$out/counts.tsv")"
  min_ir="$(awk -F'\t' '$1 == "minimal" { print $4 }' "$out/counts.tsv")"
  rss2="$(awk -F'\t' '$1 == "ferndrop" && $2 == "2K" { print $3 }' "$out/rss.tsv")"
  rss100="$(awk -F'\t' '$1 == "ferndrop" && $2 == "100M" { print $3 }' "$out/rss.tsv")"
  echo "| goal | figure | verdict |"
  echo "|---|---|---|"
  echo "| 2 KB maildir: ferndrop <= procmail | $(ms "$f2") vs $(ms "$p2") ms | $(verdict "$f2" "$p2") |"
  # procmail makes no sync of new: within what that sync costs the minimal
  # program, ferndrop is as fast as procmail.
  m2="$(med 2K minimal)"; n2="$(med 2K minimal-nosync)"
  over="$(awk -v a="$f2" -v b="$p2" 'BEGIN { if (a == "" || b == "") print ""; else print a - b }')"
  sync="$(awk -v a="$m2" -v b="$n2" 'BEGIN { if (a == "" || b == "") print ""; else print a - b }')"
  echo "| (the sync of new: minimal with / without) | $(ms "$m2") / $(ms "$n2") ms | - |"
  echo "| 2 KB maildir: ferndrop over procmail within the sync of new | $(ms "$over") vs $(ms "$sync") ms | $(verdict "$over" "$sync") |"
  echo "| 2 KB INBOX: ferndrop+lmtp <= 0.5x lda | $(ratio "$(med 2K ferndrop+lmtp)" "$l2")x | $(verdict "$(ratio "$(med 2K ferndrop+lmtp)" "$l2")" 0.5) |"
  echo "| (LMTP floor: lmtp / lda) | $(ratio "$(med 2K lmtp)" "$l2")x | - |"
  echo "| (LMTP floor with the duties: minimal+duties+lmtp / lda) | $(ratio "$(med 2K minimal+duties+lmtp)" "$l2")x | - |"
  echo "| 2 KB INBOX: ferndrop+lda <= 1.1x lda | $(ratio "$(med 2K ferndrop+lda)" "$l2")x | $(verdict "$(ratio "$(med 2K ferndrop+lda)" "$l2")" 1.1) |"
  echo "| (INBOX floor: minimal+lda / lda) | $(ratio "$(med 2K minimal+lda)" "$l2")x | - |"
  echo "| (INBOX floor with the duties: minimal+duties+lda / lda) | $(ratio "$(med 2K minimal+duties+lda)" "$l2")x | - |"
  if [ -s "$out/load.tsv" ]; then
    for i in 16 64; do
      fd="$(lmed 200 "$i" ferndrop 5)"; pd="$(lmed 200 "$i" procmail 5)"
      fp="$(lmed 200 "$i" ferndrop 7)"; pp="$(lmed 200 "$i" procmail 7)"
      echo "| load, $i in flight, 200 mailboxes: ferndrop >= procmail per second | $fd vs $pd | $(verdict "$pd" "$fd") |"
      echo "| load, $i in flight, 200 mailboxes: ferndrop p99 <= procmail's | $fp vs $pp ms | $(verdict "$fp" "$pp") |"
      echo "| (floor: minimal+registry per second / p99) | $(lmed 200 "$i" minimal+registry 5) / $(lmed 200 "$i" minimal+registry 7) ms | - |"
      echo "| (floor with the duties: minimal+duties per second / p99) | $(lmed 200 "$i" minimal+duties 5) / $(lmed 200 "$i" minimal+duties 7) ms | - |"
    done
    fl="$(lmed 200 16 ferndrop+lmtp 5)"; ll="$(lmed 200 16 lda 5)"
    echo "| load, 16 in flight, 200 mailboxes: ferndrop+lmtp above lda per second | $fl vs $ll | $(awk -v a="$fl" -v b="$ll" 'BEGIN { print (a > b) ? "met" : "NOT met" }') |"
  fi
  echo "| instructions, own process <= 0.5 M | $(mega "$own_ir") | $(verdict "$own_ir" 500000) |"
  echo "| (floor: registry-floor + minimal) | $(mega "$floor_ir") + $(mega "$min_ir") | - |"
  echo "| (floor: minimal+registry) | $(mega "$(awk -F'\t' '$1 == "minimal+registry" { print $4 }' "$out/counts.tsv")") | - |"
  echo "| peak RSS flat, 2 KB to 100 MB (within 1 MB) | $rss2 vs $rss100 KB | $(verdict "$(( ${rss100:-0} - ${rss2:-0} ))" 1024) |"
  echo
  echo "ferndrop log lines in the whole run: $(cat "$out/ferndrop-log-lines"); other than the start line:"
  echo
  echo '```'
  cat "$out/ferndrop-other-log-lines"
  echo '```'
) > "$T/report.md"
cat "$T/report.md"
[ -z "$report" ] || cp "$T/report.md" "$report"
