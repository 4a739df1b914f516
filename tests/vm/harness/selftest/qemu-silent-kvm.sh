#!/bin/sh
# A stand-in for qemu-system-x86_64 (TRAK_VM_QEMU) that behaves like a KVM
# which cannot run a stock kernel: under accel=kvm it prints what the
# firmware prints and then nothing, forever; under any other accelerator it
# runs the real QEMU.
case " $* " in
*" q35,accel=kvm "*)
	printf 'SeaBIOS (version stand-in)\r\nBooting from ROM..\r\n'
	exec sleep 3600
	;;
esac
exec qemu-system-x86_64 "$@"
