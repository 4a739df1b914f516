#!/bin/sh
# A stand-in for qemu-system-x86_64 (TRAK_VM_QEMU) whose kernel starts but
# never reaches the guest command.
printf 'Linux version 6.1.0 (stand-in)\r\n'
exec sleep 3600
