// How the kernel schedules a pipeline's threads.
#include "Tavi/GstUtil/StreamThreads.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <utility>

#include "Support/Media.h"
#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {
namespace {

using Testing::WaitUntil;

class StreamThreadsTest : public Testing::MediaTest {};

/// Writes the policy of the thread that brings a buffer to `policy`.
void NotePolicy(GstElement* element, const char* padName, std::atomic<int>* policy) {
  GstPad* pad = gst_element_get_static_pad(element, padName);
  gst_pad_add_probe(
      pad, GST_PAD_PROBE_TYPE_BUFFER,
      [](GstPad*, GstPadProbeInfo*, gpointer data) noexcept {
        *static_cast<std::atomic<int>*>(data) = sched_getscheduler(0);
        return GST_PAD_PROBE_OK;
      },
      policy, nullptr);
  gst_object_unref(pad);
}

// Catches queues' threads that take the processor from whoever fills their queue, a source's thread that waits behind
// others, one that GStreamer gives to somebody else afterwards as it was here, and an end that waits behind other work.
TEST_F(StreamThreadsTest, ThoseOfQueuesAreBatchWorkAndThoseOfSourcesAreNot) {
  for (const auto& [asked, hurried] : {std::pair(true, false), {true, true}, {false, false}}) {
    const auto pipeline =
        GstRef<GstElement>::Sink(gst_parse_launch("fakesrc is-live=true do-timestamp=true format=time "
                                                  "datarate=100000 sizetype=fixed sizemax=1000 name=source ! "
                                                  "queue ! fakesink name=sink sync=false async=false",
                                                  nullptr));
    static std::atomic<int> source;
    static std::atomic<int> sink;
    source = sink = -1;
    const auto find = [&](const char* name) {
      return GstRef<GstElement>::Adopt(gst_bin_get_by_name(GST_BIN(pipeline.Get()), name));
    };
    NotePolicy(find("source").Get(), "src", &source);
    NotePolicy(find("sink").Get(), "sink", &sink);
    StreamThreads threads;
    if (asked) threads.Attach(pipeline.Get());
    gst_element_set_state(pipeline.Get(), GST_STATE_PLAYING);
    EXPECT_TRUE(WaitUntil([&] { return source >= 0 && sink >= 0; }));
    EXPECT_EQ(source, SCHED_OTHER);
    EXPECT_EQ(sink, asked ? SCHED_BATCH : SCHED_OTHER) << "also of threads that have been batch work before";
    if (hurried) {
      threads.Hurry();
      EXPECT_TRUE(WaitUntil([&] { return sink == SCHED_OTHER; }));
    }
    gst_element_set_state(pipeline.Get(), GST_STATE_NULL);
  }
}

}  // namespace
}  // namespace Tavi::GstUtil
