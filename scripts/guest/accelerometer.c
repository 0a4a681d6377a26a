// SPDX-License-Identifier: GPL-2.0
// An I2C adapter with one chip on it, an MMA8451Q as far as its FIFO goes, so that the recorder finds one behind /dev/i2c-1.
//   /sys/module/accelerometer/parameters/fault  0 none, 1 the chip does not acknowledge (ENXIO), 2 the bus hangs (ETIMEDOUT)
// By the chip's datasheet: WHO_AM_I is 0x1A. F_SETUP chooses the FIFO's mode, which is emptied when the FIFO is switched off and
// when the chip leaves standby. With the FIFO on, a read of 0x00 gives F_STATUS (overflow, count) and clears the overflow. A
// sample leaves the FIFO when its last byte has been read. In fast-read mode only the upper bytes are read. Other registers
// than F_SETUP can be written in standby alone. Sample n reads n modulo 64 on the first axis, so that a lost one shows.
#include <linux/errno.h>
#include <linux/i2c.h>
#include <linux/ktime.h>
#include <linux/math64.h>
#include <linux/module.h>
#include <linux/mutex.h>

enum { F_STATUS = 0x00, OUT_X_MSB = 0x01, OUT_Z_LSB = 0x06, F_SETUP = 0x09, SYSMOD = 0x0b, WHO_AM_I = 0x0d, CTRL_REG1 = 0x2a };
enum { DEPTH = 32, ADDRESS = 0x1c, BUS = 1, ACTIVE = 0x01, FAST_READ = 0x02 };

static int fault;
module_param(fault, int, 0644);

static DEFINE_MUTEX(lock);
static u8 registers[256], pointer, sample[3];
static u64 epoch, made, taken;
static bool overflow, begun;

static bool is_active(void) { return registers[CTRL_REG1] & ACTIVE; }
static bool has_fifo(void) { return registers[F_SETUP] >> 6; }

// Samples up to now: 800, 400, 200, 100, 50, 12.5, 6.25, 1.56 Hz.
static void advance(void)
{
	static const u32 period_us[8] = { 1250, 2500, 5000, 10000, 20000, 80000, 160000, 640000 };

	if (!is_active())
		return;
	made = div_u64(ktime_get_ns() - epoch, period_us[(registers[CTRL_REG1] >> 3) & 7] * 1000);
	if (!has_fifo()) {
		taken = made ? made - 1 : 0;
	} else if (made - taken > DEPTH) {
		overflow = true;
		taken = made - DEPTH;
	}
}

static u8 read_output(u8 address)
{
	u8 axis = (address - OUT_X_MSB) / 2;
	bool upper = address & 1;

	if (!begun && made != taken) {
		sample[0] = taken & 0x3f;
		sample[1] = 10;
		sample[2] = 0;
	}
	begun = true;
	if (axis == 2 && (!upper || (registers[CTRL_REG1] & FAST_READ))) {
		begun = false;
		taken += made != taken;
	}
	return upper ? sample[axis] : 0;
}

static u8 read_register(u8 address)
{
	u8 value;

	if (address >= OUT_X_MSB && address <= OUT_Z_LSB) {
		advance();
		return read_output(address);
	}
	if (address == SYSMOD)
		return is_active();
	if (address != F_STATUS)
		return registers[address];
	advance();
	if (!has_fifo())
		return made ? 0x0f : 0;
	value = (overflow ? 0x80 : 0) | (u8)(made - taken);
	overflow = false;
	return value;
}

// Where the chip reads on by itself: round and round the outputs.
static u8 next_register(u8 address)
{
	u8 step = (registers[CTRL_REG1] & FAST_READ) ? 2 : 1;

	if (address == F_STATUS && has_fifo())
		return OUT_X_MSB;
	if (address < OUT_X_MSB || address > OUT_Z_LSB)
		return address + 1;
	if (address + step <= OUT_Z_LSB)
		return address + step;
	return has_fifo() ? OUT_X_MSB : F_STATUS;
}

static void write_register(u8 address, u8 value)
{
	bool was_active = is_active();

	if (address <= OUT_Z_LSB || address == SYSMOD || address == WHO_AM_I)
		return;
	if (was_active && address != F_SETUP && !(address == CTRL_REG1 && !(value & ACTIVE)))
		return;
	if (address == F_SETUP && !(value >> 6)) {
		advance();
		taken = made;
		overflow = false;
	}
	registers[address] = value;
	if (!was_active && is_active()) {
		epoch = ktime_get_ns();
		made = taken = 0;
		overflow = begun = false;
	}
}

static int transfer(struct i2c_adapter *adapter, struct i2c_msg *messages, int count)
{
	int i, k;

	if (fault == 2)
		return -ETIMEDOUT;
	for (i = 0; i < count; i++)
		if (fault == 1 || messages[i].addr != ADDRESS)
			return -ENXIO;
	mutex_lock(&lock);
	for (i = 0; i < count; i++) {
		for (k = 0; k < messages[i].len; k++) {
			if (messages[i].flags & I2C_M_RD) {
				messages[i].buf[k] = read_register(pointer);
				pointer = next_register(pointer);
			} else if (k == 0) {
				pointer = messages[i].buf[0];
			} else {
				write_register(pointer++, messages[i].buf[k]);
			}
		}
	}
	mutex_unlock(&lock);
	return count;
}

static u32 functionality(struct i2c_adapter *adapter) { return I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL; }

static const struct i2c_algorithm algorithm = { .master_xfer = transfer, .functionality = functionality };
static struct i2c_adapter bus = { .owner = THIS_MODULE, .algo = &algorithm, .name = "bus of the test's accelerometer", .nr = BUS };

static int __init start(void)
{
	registers[WHO_AM_I] = 0x1a;
	return i2c_add_numbered_adapter(&bus);
}

static void __exit stop(void) { i2c_del_adapter(&bus); }

module_init(start);
module_exit(stop);
MODULE_DESCRIPTION("An accelerometer for tests");
MODULE_LICENSE("GPL");
