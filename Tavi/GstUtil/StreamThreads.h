// How the kernel schedules a pipeline's threads.
#pragma once

#include <gst/gst.h>

namespace Tavi::GstUtil {

/// Has the threads behind the queues of a pipeline, as they begin, scheduled as batch work (SCHED_BATCH, sched(7)):
/// woken, they let whoever wakes them come to its end first. Otherwise each is given the processor while the waker
/// still holds the queue that it waits for, twice the changes of threads for nothing. They get no less of a busy
/// processor than others. Threads of sources stay as they are, for what they read does not wait; one that was given
/// another policy keeps it. For a pipeline that has not been started; its bus has no other synchronous handler.
void LetWakersFinish(GstElement* pipeline);

}  // namespace Tavi::GstUtil
