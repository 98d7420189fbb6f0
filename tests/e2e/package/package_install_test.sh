#!/usr/bin/env bash
# Installs the Debian package built by package_build on this machine and takes it away again:
#
#   1. dpkg -i: files, libraries without RPATH/RUNPATH found by the dynamic linker, the system user,
#      the folders and their owners, the conffile and its permissions, the unit enabled, and
#      `systemd-analyze verify` of the installed unit;
#   2. the installed server, started as the package's user with the unit's own ExecStart command
#      line in a mount namespace where only the unit's ReadWritePaths are writable, against a
#      mosquitto on a free loopback port named in the (changed) settings file;
#      the installed ctxsync pushes two images, lists them with their MD5 and pulls them back
#      byte for byte; the server writes nothing outside the folders the unit lets it write;
#   3. an upgrade to a higher version keeps the changed conffile, the user and the context root;
#   4. dpkg -r keeps settings, data and user; dpkg --purge removes them, and the machine is as it
#      was before step 1 (users, groups, dpkg's overrides, systemd's links, every file of the
#      package).
#
# Usage: package_install_test.sh PACKAGE.deb IMAGES_DIR CROSS_DEPENDS
# CROSS_DEPENDS is the Depends list that cross builds name themselves (cmake/packaging.cmake): it
# must name the same packages as dpkg-shlibdeps finds for this native package.
# Exit status 77 (skipped) when not run as root, when a tool is missing, or when the package, its
# user or its folders are on this machine already: a real installation is never touched.
set -euo pipefail

deb="$1"
images="$2"
cross_depends="$3"

name=context-sync
user=context-sync
unit_name=context-sync-server.service
settings=/etc/context_sync/server-settings.json
var_dir=/var/lib/context_sync
root_dir=$var_dir/context_root
state_dir=$var_dir/state
log_dir=/var/log/context_sync
unit=/lib/systemd/system/$unit_name
wants=/etc/systemd/system/multi-user.target.wants/$unit_name

skip() {
    echo "SKIPPED: $*"
    exit 77
}
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
step() {
    echo "--- $* ($SECONDS s)"
}
# A command that fails without a message of its own still says where.
trap 'echo "FAILED: line $LINENO: $BASH_COMMAND" >&2' ERR

# --- may this run here at all? ----------------------------------------------------------------
if [ "$(id -u)" -ne 0 ]; then
    skip "installs a package with dpkg and creates a system user: run as root (CI does)"
fi
for tool in dpkg dpkg-deb dpkg-query dpkg-statoverride setpriv mosquitto systemd-analyze \
    readelf ldd python3 flock; do
    command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed (scripts/setup)"
done
[ -f "$deb" ] || fail "no package at $deb (package_build makes it)"

# One run at a time on a machine: two would install and purge the same package.
exec 9>/run/lock/context-sync-package-test.lock
flock -w 120 9 || fail "another package test holds /run/lock/context-sync-package-test.lock"

status=$(dpkg-query -W -f='${db:Status-Abbrev}' "$name" 2>/dev/null || true)
if [ -n "${status// /}" ] && [ "${status:0:2}" != "un" ]; then
    skip "package $name is on this machine already (dpkg status '$status'): not touching it"
fi
getent passwd "$user" >/dev/null && skip "user $user exists on this machine: not touching it"
getent group "$user" >/dev/null && skip "group $user exists on this machine: not touching it"
for leftover in /etc/context_sync "$var_dir" "$log_dir" "$unit" "$wants"; do
    if [ -e "$leftover" ] || [ -L "$leftover" ]; then
        skip "$leftover exists on this machine: not touching it"
    fi
done

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -dumpmachine)
lib_dir=/usr/lib/$multiarch

# No fsync after every file: the test's packages need not survive a power cut, and on a busy
# machine dpkg's syncing takes most of the test's time.
dpkg=(dpkg --force-unsafe-io)

work=$(mktemp -d /tmp/context-sync-package-test.XXXXXX)
chmod 0755 "$work"
broker_pid=""
server_pid=""
installed=0
cleanup() {
    local code=$?
    set +e
    [ -n "$server_pid" ] && kill -TERM "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
    [ -n "$broker_pid" ] && kill -TERM "$broker_pid" 2>/dev/null && wait "$broker_pid" 2>/dev/null
    if [ "$installed" -eq 1 ]; then
        echo "cleanup: purging $name"
        "${dpkg[@]}" --purge "$name" </dev/null >/dev/null 2>&1
    fi
    if [ "$code" -ne 0 ] && [ -f "$work/server.out" ]; then
        echo "--- server output" >&2
        tail -n 40 "$work/server.out" >&2
    fi
    rm -rf "$work"
    rm -f /etc/context-sync-probe /var/lib/context-sync-probe
    exit "$code"
}
trap cleanup EXIT

# What install and purge may change, so that "as it was" can be compared line by line.
snapshot() {
    {
        echo "# users"
        getent passwd | sort
        echo "# groups"
        getent group | sort
        echo "# shadow"
        cut -d: -f1 /etc/shadow | sort
        echo "# gshadow"
        cut -d: -f1 /etc/gshadow | sort
        echo "# dpkg overrides"
        dpkg-statoverride --list | sort
        echo "# files"
        find /etc/systemd /var/lib/systemd/deb-systemd-helper-enabled \
            /var/lib/systemd/deb-systemd-helper-masked /lib/systemd/system 2>/dev/null | sort \
            || true
        find /etc /var/lib /var/log -maxdepth 1 | sort
        echo "# dpkg database"
        local entry
        for entry in /var/lib/dpkg/info/"$name".* /var/lib/dpkg/info/"$name":*; do
            if [ -e "$entry" ]; then echo "$entry"; fi
        done
    } >"$1"
}

# --- 1. install ---------------------------------------------------------------------------------
step "installing $deb"
snapshot "$work/before.txt"
version=$(dpkg-deb -f "$deb" Version)
installed=1
"${dpkg[@]}" -i "$deb" </dev/null >"$work/dpkg-install.out" 2>&1 || {
    cat "$work/dpkg-install.out"
    fail "dpkg -i $deb"
}
[ "$(dpkg-query -W -f='${db:Status-Abbrev}${Version}' "$name")" = "ii $version" ] \
    || fail "dpkg does not list $name $version as installed"
dpkg -L "$name" | sort >"$work/package-files.txt"

step "files, libraries, links"
for program in /usr/bin/context_sync_server /usr/bin/ctxsync; do
    [ -x "$program" ] || fail "$program is missing or not executable"
done
for library in libcontext_sync liborvane_platform; do
    [ -f "$lib_dir/$library.so.0.1.0" ] || fail "$lib_dir/$library.so.0.1.0 is missing"
    [ "$(readlink "$lib_dir/$library.so.0")" = "$library.so.0.1.0" ] \
        || fail "$lib_dir/$library.so.0 does not point to $library.so.0.1.0"
    [ ! -e "$lib_dir/$library.so" ] || fail "the development link $lib_dir/$library.so is packaged"
done
for elf in /usr/bin/context_sync_server /usr/bin/ctxsync "$lib_dir/libcontext_sync.so.0.1.0" \
    "$lib_dir/liborvane_platform.so.0.1.0"; do
    if readelf -d "$elf" | grep -E '\((RPATH|RUNPATH)\)'; then
        fail "$elf carries an RPATH/RUNPATH"
    fi
done
# Found through the dynamic linker's own search path: no "not found", and ours from $lib_dir.
for program in /usr/bin/context_sync_server /usr/bin/ctxsync; do
    ldd "$program" >"$work/ldd.txt"
    if grep -q "not found" "$work/ldd.txt"; then
        cat "$work/ldd.txt"
        fail "$program has libraries the dynamic linker cannot find"
    fi
    # /lib is /usr/lib on a merged-/usr system; the linker may name either.
    for library in libcontext_sync liborvane_platform; do
        grep -qE "^\s$library\.so\.0 => (/usr)?/lib/$multiarch/$library\.so\.0 " "$work/ldd.txt" \
            || fail "$program does not load $lib_dir/$library.so.0: $(grep "$library" "$work/ldd.txt")"
    done
done
[ "$(env -i /usr/bin/context_sync_server --version)" \
    = "context_sync_server ${version%-*} (libcontext_sync ${version%-*})" ] \
    || fail "installed server --version: $(env -i /usr/bin/context_sync_server --version)"
env -i /usr/bin/ctxsync --version | grep -qF "${version%-*}" || fail "installed ctxsync --version"
[ -f "$unit" ] || fail "$unit is missing"
[ -f "/usr/share/doc/$name/deployment.md" ] || fail "/usr/share/doc/$name/deployment.md is missing"
package_names() { tr ',' '\n' | sed 's/(.*)//; s/[[:space:]]//g' | grep -v '^$' | sort; }
dpkg-deb -f "$deb" Depends | package_names >"$work/depends.native"
echo "$cross_depends" | package_names >"$work/depends.cross"
grep -qx libqt6core6 "$work/depends.native" || fail "Depends does not name libqt6core6"
diff -u "$work/depends.cross" "$work/depends.native" \
    || fail "the Depends of cross builds (cmake/packaging.cmake) name other packages"
dpkg-deb -f "$deb" Recommends | grep -qx "mosquitto" || fail "Recommends is not mosquitto"

step "user, folders, conffile, unit"
IFS=: read -r _ _ uid gid _ home shell < <(getent passwd "$user")
[ "$uid" -lt 1000 ] || fail "$user is not a system user (uid $uid)"
[ "$home" = "$var_dir" ] || fail "$user's home is $home"
[ "$shell" = /usr/sbin/nologin ] || fail "$user's shell is $shell"
[ "$(getent group "$user" | cut -d: -f3)" = "$gid" ] || fail "$user's group is not $user"
check_stat() {
    local got
    got=$(stat -c '%U:%G %a' "$1")
    [ "$got" = "$2" ] || fail "$1 is $got, expected $2"
}
check_stat "$var_dir" "root:root 755"
check_stat "$root_dir" "$user:$user 755"
check_stat "$state_dir" "$user:$user 750"
check_stat "$log_dir" "$user:$user 750"
check_stat "$settings" "root:$user 640"
check_stat "$unit" "root:root 644"
dpkg-query -W -f='${Conffiles}\n' "$name" | grep -q "^ $settings [0-9a-f]\{32\}$" \
    || fail "$settings is not a conffile of $name"
python3 -c "import json,sys; json.load(open(sys.argv[1]))" "$settings" \
    || fail "$settings is not JSON"
[ "$(readlink "$wants")" = "$unit" ] || fail "$unit_name is not enabled ($wants)"
for line in "User=$user" "ProtectSystem=strict" "ReadWritePaths=$root_dir $state_dir $log_dir" \
    "Restart=on-failure" "NoNewPrivileges=yes"; do
    grep -qx "$line" "$unit" || fail "$unit has no line '$line'"
done
systemd-analyze verify --man=no "$unit" >"$work/verify.out" 2>&1 || {
    cat "$work/verify.out"
    fail "systemd-analyze verify $unit"
}
if [ -s "$work/verify.out" ]; then
    cat "$work/verify.out"
    fail "systemd-analyze verify $unit printed warnings"
fi

# --- 2. the installed server, as the unit runs it -----------------------------------------------
step "running the installed server"
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf '%s\n' "listener $port 127.0.0.1" "allow_anonymous true" "persistence false" \
    "user root" "log_dest stderr" "set_tcp_nodelay true" >"$work/mosquitto.conf"
mosquitto -c "$work/mosquitto.conf" </dev/null 2>"$work/mosquitto.log" &
broker_pid=$!
for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep 0.05
done
(exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || fail "mosquitto did not listen on $port"

# The operator's change: the broker's port. It is also the change the upgrade must keep.
python3 - "$settings" "$port" <<'PY'
import json, sys
path, port = sys.argv[1], int(sys.argv[2])
document = json.load(open(path))
document["static"]["orvane"]["comunication"]["mqtt"]["port"] = port
open(path, "w").write(json.dumps(document, indent=4) + "\n")
PY
cp "$settings" "$work/settings-changed.json"

exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
read -r -a command_line <<<"$exec_start"
[ "${command_line[0]}" = /usr/bin/context_sync_server ] || fail "ExecStart runs ${command_line[0]}"
# The file-system part of the unit's sandbox, as far as it can be had without systemd: in a mount
# namespace of its own every mount is read-only (ProtectSystem=strict) but the folders of
# ReadWritePaths, and /tmp is private (PrivateTmp). The server must run in there.
rw_paths=$(sed -n 's/^ReadWritePaths=//p' "$unit")
cat >"$work/sandbox.sh" <<'SH'
#!/bin/sh
set -e
for path in $RW_PATHS; do
    mount --bind "$path" "$path"
done
findmnt -rn -o TARGET | while read -r target; do
    case "$target" in /proc | /proc/* | /sys | /sys/* | /dev | /dev/*) continue ;; esac
    for path in $RW_PATHS; do
        [ "$target" = "$path" ] && continue 2
    done
    mount -o remount,bind,ro "$target" 2>/dev/null || true
done
mount -t tmpfs -o mode=1777 tmpfs /tmp
exec "$@"
SH
sandbox=()
if unshare --mount --propagation private true 2>/dev/null; then
    sandbox=(env RW_PATHS="$rw_paths" unshare --mount --propagation private /bin/sh
        "$work/sandbox.sh")
    # Even root can write nowhere else in there.
    "${sandbox[@]}" /bin/sh -c "touch $state_dir/probe && rm $state_dir/probe \
        && ! touch /etc/context-sync-probe 2>/dev/null && ! touch /var/lib/context-sync-probe \
            2>/dev/null" || fail "the read-only sandbox does not work"
else
    echo "note: no mount namespaces here; the server runs without the read-only file system"
fi
(cd / && exec "${sandbox[@]}" env -i PATH=/usr/bin:/bin LANG=C.UTF-8 setpriv --reuid "$user" \
    --regid "$user" --init-groups --no-new-privs "${command_line[@]}" >"$work/server.out" 2>&1) &
server_pid=$!
# The console (the journal, under systemd) has every line at once; the log file is checked after
# the stop, which flushes it.
running="Context sync service running on $root_dir/"
connected="MQTT connected to 127.0.0.1:$port as context-sync-server"
for _ in $(seq 1200); do
    grep -qF "$connected" "$work/server.out" && break
    kill -0 "$server_pid" 2>/dev/null || fail "the installed server ended early"
    sleep 0.05
done
grep -qF "$running" "$work/server.out" || fail "the server did not say '$running'"
grep -qF "$connected" "$work/server.out" || fail "the server did not say '$connected'"

ctxsync=(env -i PATH=/usr/bin:/bin LANG=C.UTF-8 /usr/bin/ctxsync --broker "127.0.0.1:$port"
    --timeout 20)
small=$images/bg_640x284.png
large=$images/padded_1048576.png # three chunks
step "ctxsync push, list, pull"
"${ctxsync[@]}" push "$small" "$large" >"$work/push.out" 2>&1 || {
    cat "$work/push.out"
    fail "ctxsync push"
}
"${ctxsync[@]}" list >"$work/list.out" 2>&1 || {
    cat "$work/list.out"
    fail "ctxsync list"
}
md5() { md5sum "$1" | cut -d' ' -f1; }
{
    echo "$(md5 "$small")  background/bg_640x284.png"
    echo "$(md5 "$large")  background/padded_1048576.png"
} >"$work/list.expected"
grep -v "files, context hash" "$work/list.out" >"$work/list.files" || true
diff -u "$work/list.expected" "$work/list.files" || fail "ctxsync list does not show the two images"
grep -q "^2 files, context hash [0-9a-f]\{32\}$" "$work/list.out" || fail "ctxsync list summary"
mkdir "$work/copy"
"${ctxsync[@]}" pull "$work/copy" >"$work/pull.out" 2>&1 || {
    cat "$work/pull.out"
    fail "ctxsync pull"
}
cmp "$small" "$work/copy/background/bg_640x284.png" || fail "pulled bg_640x284.png differs"
cmp "$large" "$work/copy/background/padded_1048576.png" || fail "pulled padded_1048576.png differs"
cmp "$large" "$root_dir/background/padded_1048576.png" || fail "the server's copy differs"
check_stat "$root_dir/background/padded_1048576.png" "$user:$user 644"
python3 - "$state_dir/config/comunication.json" "$port" <<'PY' || fail "the server's client file"
import json, sys
document = json.load(open(sys.argv[1]))
assert document["mqtt"]["port"] == int(sys.argv[2]), document
assert document["global"]["installation_id"], document
PY

step "stopping the server"
kill -TERM "$server_pid"
server_status=0
wait "$server_pid" || server_status=$?
server_pid=""
[ "$server_status" -eq 0 ] || fail "the server ended with status $server_status after SIGTERM"
log_file=$log_dir/server-orvane.log
for line in "$running" "$connected" "context_sync_server stopped"; do
    grep -qF "$line" "$log_file" || fail "no '$line' in $log_file"
done
check_stat "$log_file" "$user:$user 644"
# The user can write only to its own folders and the world-writable ones; of the latter, the unit
# gives it a private /tmp and /dev (PrivateTmp, PrivateDevices). So everything it wrote must lie in
# the folders that ReadWritePaths names.
find /var/tmp /dev/shm /run/lock /dev/mqueue "$var_dir" -xdev -user "$user" 2>/dev/null \
    | grep -v -e "^$root_dir" -e "^$state_dir" >"$work/outside.txt" || true
if [ -s "$work/outside.txt" ]; then
    cat "$work/outside.txt"
    fail "the server wrote outside $root_dir, $state_dir and $log_dir"
fi
kill -TERM "$broker_pid"
wait "$broker_pid" 2>/dev/null || true
broker_pid=""

# --- 3. upgrade ---------------------------------------------------------------------------------
step "upgrading to a higher version"
next_version="${version%-*}-$((${version##*-} + 1))"
dpkg-deb -R "$deb" "$work/unpacked"
sed -i "s/^Version: .*/Version: $next_version/" "$work/unpacked/DEBIAN/control"
dpkg-deb -Znone --root-owner-group -b "$work/unpacked" "$work/next.deb" >/dev/null
"${dpkg[@]}" -i "$work/next.deb" </dev/null >"$work/dpkg-upgrade.out" 2>&1 || {
    cat "$work/dpkg-upgrade.out"
    fail "dpkg -i of version $next_version"
}
[ "$(dpkg-query -W -f='${db:Status-Abbrev}${Version}' "$name")" = "ii $next_version" ] \
    || fail "$name $next_version is not installed after the upgrade"
cmp "$work/settings-changed.json" "$settings" || fail "the upgrade changed $settings"
for dpkg_copy in "$settings".dpkg-*; do
    [ ! -e "$dpkg_copy" ] || fail "the upgrade left $dpkg_copy"
done
check_stat "$settings" "root:$user 640"
[ "$(id -u "$user")" = "$uid" ] || fail "the upgrade changed $user's uid"
cmp "$large" "$root_dir/background/padded_1048576.png" || fail "the upgrade changed the context root"

# --- 4. remove and purge ------------------------------------------------------------------------
step "dpkg -r"
"${dpkg[@]}" -r "$name" </dev/null >"$work/dpkg-remove.out" 2>&1 || {
    cat "$work/dpkg-remove.out"
    fail "dpkg -r $name"
}
[ "$(dpkg-query -W -f='${db:Status-Abbrev}' "$name")" = "rc " ] \
    || fail "$name is not in state 'removed, config-files' after dpkg -r"
for gone in /usr/bin/context_sync_server /usr/bin/ctxsync "$lib_dir/libcontext_sync.so.0" \
    "$lib_dir/liborvane_platform.so.0" "$unit"; do
    [ ! -e "$gone" ] || fail "$gone is still there after dpkg -r"
done
cmp "$work/settings-changed.json" "$settings" || fail "dpkg -r did not keep $settings"
getent passwd "$user" >/dev/null || fail "dpkg -r removed the user $user"
[ -f "$root_dir/background/padded_1048576.png" ] || fail "dpkg -r removed the context root"

step "dpkg --purge"
"${dpkg[@]}" --purge "$name" </dev/null >"$work/dpkg-purge.out" 2>&1 || {
    cat "$work/dpkg-purge.out"
    fail "dpkg --purge $name"
}
installed=0
status=$(dpkg-query -W -f='${db:Status-Abbrev}' "$name" 2>/dev/null || true)
[ -z "${status// /}" ] || [ "${status:0:2}" = "un" ] || fail "$name is still known to dpkg: '$status'"
getent passwd "$user" >/dev/null && fail "the user $user is still there after purge"
getent group "$user" >/dev/null && fail "the group $user is still there after purge"
while IFS= read -r path; do
    # Folders the package shares with others (/usr/bin, ...) stay; its own files must be gone.
    if [ -e "$path" ] && ! [ -d "$path" ]; then
        fail "$path of the package is still there after purge"
    fi
done <"$work/package-files.txt"
for gone in /etc/context_sync "$var_dir" "$log_dir" "$wants" "/usr/share/doc/$name"; do
    [ ! -e "$gone" ] && [ ! -L "$gone" ] || fail "$gone is still there after purge"
done
snapshot "$work/after.txt"
diff -u "$work/before.txt" "$work/after.txt" || fail "the machine is not as it was before"
step "passed"
