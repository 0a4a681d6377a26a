// Loaded before the recorder: has a capture device list three pixel formats, as cameras do. The kernel's vivid lists some sixty, and
// GStreamer takes 2.7 s of the guest's processor to tell their hundreds of modes apart, once for each camera and start.
#define _GNU_SOURCE
#include <linux/videodev2.h>
#include <stdarg.h>
#include <stdbool.h>
#include <sys/syscall.h>
#include <unistd.h>

static bool is_listed(__u32 format)
{
	return format == V4L2_PIX_FMT_YUV420 || format == V4L2_PIX_FMT_YUYV || format == V4L2_PIX_FMT_NV12;
}

/// Looks for the listed format of that number among all that the driver has.
static int list_format(int device, struct v4l2_fmtdesc *asked)
{
	struct v4l2_fmtdesc found = *asked;
	__u32 listed = 0;

	for (found.index = 0;; ++found.index) {
		long result = syscall(SYS_ioctl, device, VIDIOC_ENUM_FMT, &found);

		if (result != 0)
			return (int)result;
		if (is_listed(found.pixelformat) && listed++ == asked->index)
			break;
	}
	found.index = asked->index;
	*asked = found;
	return 0;
}

int ioctl(int device, unsigned long request, ...)
{
	va_list arguments;
	void *argument;

	va_start(arguments, request);
	argument = va_arg(arguments, void *);
	va_end(arguments);
	if (request == VIDIOC_ENUM_FMT)
		return list_format(device, argument);
	return (int)syscall(SYS_ioctl, device, request, argument);
}
