# The program of the test VMs: a boot sector that works on its disk and its NIC at a steady pace.
#
# A turn is one read of 32 KiB, one write of 4 KiB and one ARP frame of 60 bytes, then SPIN_TICKS
# ticks of busy CPU and HALT_TICKS ticks of halted CPU (18.2 ticks a second; both given to `as` by
# --defsym). Pacing by the clock keeps the CPU share the same however fast the emulation is. The
# ACPI power button switches the VM off, so that `virsh shutdown` works.

.code16
.globl _start

.set biosTicks, 0x46c     # counter of the BIOS clock
.set diskBuffer, 0x8000   # linear address, 32 KiB from here are free
.set pmStatus, 0x600      # power management registers of the pc machine
.set pmEnable, 0x602
.set pmControl, 0x604
.set powerButton, 0x100

_start:
        xorw %ax, %ax
        movw %ax, %ds
        movw %ax, %es
        movw %ax, %ss
        movw $0x7c00, %sp
        cld
        sti
        movb %dl, drive
        movw $pmEnable, %dx
        movw $powerButton, %ax
        outw %ax, %dx

        # The NIC is an RTL8139: found by the PCI BIOS, made bus master, transmitter on.
        movw $0xb102, %ax
        movw $0x8139, %cx
        movw $0x10ec, %dx
        xorw %si, %si
        int $0x1a
        jc turn
        movw $0xb10c, %ax
        movw $0x04, %di
        movw $0x07, %cx
        int $0x1a
        movw $0xb109, %ax
        movw $0x10, %di
        int $0x1a
        andb $0xfc, %cl
        movw %cx, nic
        movw %cx, %dx
        addw $0x37, %dx
        movb $0x04, %al
        outb %al, %dx

        # The frame carries the NIC's own address, twice.
        movw %cx, %dx
        movw $frame + 6, %di
        movw $6, %cx
1:      inb %dx, %al
        movb %al, 16(%di)
        stosb
        incw %dx
        loop 1b

turn:
        movw $pmStatus, %dx
        inw %dx, %ax
        testb $powerButton >> 8, %ah
        jz 1f
        movw $pmControl, %dx
        movw $0x2000, %ax
        outw %ax, %dx
1:
        movb $0x42, %ah
        movw $readRequest, %si
        call disk
        movw $0x4300, %ax
        movw $writeRequest, %si
        call disk
        call send

        movw $SPIN_TICKS, %cx
        jcxz 3f
1:      movw biosTicks, %ax
2:      cmpw biosTicks, %ax
        je 2b
        loop 1b
3:
        movw $HALT_TICKS, %cx
1:      movw biosTicks, %ax
2:      hlt
        cmpw biosTicks, %ax
        je 2b
        loop 1b
        jmp turn

disk:   movb drive, %dl
        int $0x13
        ret

# The NIC uses its four transmit descriptors in turn: an address register (from 0x20) and a status
# register (from 0x10). Writing the frame's length to the latter sends the frame.
send:
        movw nic, %dx
        testw %dx, %dx
        jz 1f
        addw descriptor, %dx
        addw $0x20, %dx
        movl $frame, %eax
        outl %eax, %dx
        subw $0x10, %dx
        movl $60, %eax
        outl %eax, %dx
        addb $4, descriptor
        andb $0x0c, descriptor
1:      ret

readRequest:
        .byte 16, 0
        .word 64, diskBuffer, 0
        .quad 1024
writeRequest:
        .byte 16, 0
        .word 8, diskBuffer, 0
        .quad 4096

nic:        .word 0
descriptor: .word 0
drive:      .byte 0

# An ARP probe for an address of the documentation range: it has no answer, and the host counts it
# as received, not as dropped.
frame:
        .fill 6, 1, 0xff
        .fill 6, 1, 0
        .byte 8, 6, 0, 1, 8, 0, 6, 4, 0, 1
        .fill 6, 1, 0
        .byte 0, 0, 0, 0
        .fill 6, 1, 0
        .byte 192, 0, 2, 99
        .fill 18, 1, 0

        .org 510
        .word 0xaa55
