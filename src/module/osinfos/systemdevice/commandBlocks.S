/*
 * The SCSI command blocks, as one object.
 *
 * Sending a 6-byte block writes to the two bytes at offsets 7 and 8 from its start, that is into the next
 * block, so the blocks must lie one behind the other. A compiler is free to reorder and to pad separate
 * arrays, and a sanitizer puts red zones between them; labels into one object leave no such freedom.
 *
 * The names are the mangled ones of Zendra::ZDSystemDevice (systemDevice.h). They are protected: the library
 * always uses these bytes, and a linker refuses a program that would copy them into itself.
 *
 * Types are written with % because @ begins a comment in the assembly of some processors. The names that the macro
 * gets begin with a letter: clang 19 takes the beginnings of 8load and 10unload for numbers with a suffix, and drops that.
 */
	.macro block name:req, size:req, bytes:vararg
	.globl _ZN6Zendra14\name
	.protected _ZN6Zendra14\name
	.type _ZN6Zendra14\name, %object
	.size _ZN6Zendra14\name, \size
_ZN6Zendra14\name:
	.byte \bytes
	.endm

	.section .data.zendra_command_blocks, "aw", %progbits
	.balign 32
	.local zendra_command_blocks
	.type zendra_command_blocks, %object
zendra_command_blocks:
	block ZDSystemDevice11inquiry_cmdE, 6, 0x12, 0x00, 0x00, 0x00, 0x80, 0x00
	block ZDSystemDevice8load_cmdE, 6, 0x1b, 0x00, 0x00, 0x00, 0x01, 0x00
	block ZDSystemDevice10unload_cmdE, 6, 0x1b, 0x00, 0x00, 0x00, 0x00, 0x00
	block ZDSystemDevice11prevent_cmdE, 6, 0x1e, 0x00, 0x00, 0x00, 0x01, 0x00
	block ZDSystemDevice10send_diagsE, 6, 0x1d, 0x00, 0x00, 0x00, 0x00, 0x00
	block ZDSystemDevice9allow_cmdE, 6, 0x1e, 0x00, 0x00, 0x00, 0x00, 0x00
	block ZDSystemDevice10rewind_cmdE, 6, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00
	block ZDSystemDevice13tapeAlert_cmdE, 10, 0x4d, 0x00, 0x6e, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00
	block ZDSystemDevice14driveUsage_cmdE, 10, 0x4d, 0x00, 0x40, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0x00
	block ZDSystemDevice16deviceStatus_cmdE, 10, 0x4d, 0x00, 0x33, 0x00, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00
	block ZDSystemDevice17serialinquiry_cmdE, 6, 0x12, 0x01, 0x80, 0x00, 0xff, 0x00
	/* Room for the bytes that sending serialinquiry_cmd writes behind it. */
	.zero 16
	.size zendra_command_blocks, . - zendra_command_blocks

	/* All zeros, hence not among the initialised blocks; with room of its own. */
	.section .bss.zendra_test_unit_ready, "aw", %nobits
	.balign 32
	block ZDSystemDevice15test_unit_readyE, 6, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00
	.zero 16

	.section .note.GNU-stack, "", %progbits
