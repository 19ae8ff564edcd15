#!/bin/sh
# Turns the folder ROOT into a running system: the process that runs this, the first of new namespaces, becomes systemd.
# Usage: boot.sh ROOT
#
# What is mounted here is gone with the namespace. Of the kernel's settings the system can write none, and it has no
# capability to set the clock, load modules, reboot, or change the audit.
set -eu
root=$1

mount --bind "$root" "$root"
cd "$root"
mount -t proc -o nosuid,noexec,nodev proc proc
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
mount -t sysfs -o ro,nosuid,noexec,nodev sysfs sys
mount -t cgroup2 -o nosuid,noexec,nodev cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755,nosuid,nodev run run
mount -t tmpfs -o mode=755,nosuid dev dev
for device in null zero full random urandom tty; do
  : >"dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd

pivot_root . .
umount -l .
dropped=-audit_control,-audit_read,-audit_write,-sys_boot,-sys_module,-sys_rawio,-sys_time,-syslog
exec env -i container=namespaces PATH=/usr/sbin:/usr/bin:/sbin:/bin \
  setpriv --bounding-set="$dropped" /lib/systemd/systemd --unit=multi-user.target --show-status=no
