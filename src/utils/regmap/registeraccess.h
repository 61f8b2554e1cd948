/* Register access to the board's own modules (RTU, image-sensor control, ToF, illumination,
 * autofocus): one ioctl per access on the module's device node, with the whole request in a
 * fixed-size record. The data travels inside the record, never behind a pointer, so a
 * character device served from user space can answer it without unrestricted ioctls, and the
 * access carries its own address (a file position is not available everywhere).
 *
 * Plain C on purpose: board-side tools in C include this header too. */
#ifndef K52_REGISTERACCESS_H
#define K52_REGISTERACCESS_H

#include <linux/ioctl.h>
#include <stdint.h>

/* The largest block one request moves; every register and table of the modules fits. */
#define K52_REGISTER_DATA_MAX 256

struct k52_register_access {
    uint32_t address; /* byte address of the register or of the first table byte */
    uint32_t length;  /* 4 for a register; 1..K52_REGISTER_DATA_MAX inside a table */
    uint8_t data[K52_REGISTER_DATA_MAX]; /* little-endian register value, or table bytes */
};

#define K52_REGISTER_IOC_MAGIC 0xB9

/* Fills data[0..length) from the module; address and length are left as they were. */
#define K52_REGISTER_READ _IOWR(K52_REGISTER_IOC_MAGIC, 0x00, struct k52_register_access)
/* Stores data[0..length) at the address. */
#define K52_REGISTER_WRITE _IOW(K52_REGISTER_IOC_MAGIC, 0x01, struct k52_register_access)

#endif
