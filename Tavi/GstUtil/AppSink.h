// What the branches' appsinks have in common: pulling, and callbacks that can be taken off again.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// The sink's next sample, which has a buffer; null when the sink has none to give any more.
[[nodiscard]] GstRef<GstSample> PullSample(GstAppSink* sink);
/// The sample's buffer with a reference for the caller.
[[nodiscard]] GstBuffer* ShareBuffer(GstSample* sample);

/// Has the sink deliver what comes when it comes. It would otherwise hold each entry back by the longest latency of any
/// branch (a slow camera would stop the sound), and keep all of its pipeline from playing until its own first buffer.
void DeliverAtOnce(GstElement* sink);

/// `newSample` is called on the sink's streaming thread; signals are off.
void SetSampleCallback(GstElement* sink, GstFlowReturn (*newSample)(GstAppSink*, void*), void* element);

/// Takes the callback off and waits for the one under way. A null sink is ignored.
void ClearSampleCallback(const GstRef<GstElement>& sink);

}  // namespace Tavi::GstUtil
