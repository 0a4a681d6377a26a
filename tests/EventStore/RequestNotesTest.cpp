// Notes of requests: there after whatever ends the process, gone when the request is settled.
#include "EventStore/RequestNotes.h"

#include "EventStore/StoreFixture.h"

namespace Tavi::EventStore {
namespace {

class RequestNotesTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    std::filesystem::create_directory(m_events);
  }
};

// A label or a protection that is lost; a note that is taken for an event, stays for ever, or comes after its event.
TEST_F(RequestNotesTest, OnlyWhatIsNotSettledIsFoundByTheNextProcess) {
  EventDescription request = MakeEvent("00000002", 9);
  request.label = "a \"b\"";
  request.startSeconds = -7;
  {
    RequestNotes notes(m_events);
    notes.Add({request, true});
    notes.Add({MakeEvent("00000001", 8), false});
    notes.Add({MakeEvent("00000003"), false});
    notes.Remove("00000003");
    notes.Remove("00000004");
    notes.Add({MakeEvent("00000004"), false});
  }
  EXPECT_TRUE(ListEvents(m_events).empty());
  std::filesystem::create_directory(m_events + "/.request-00000005");
  std::filesystem::copy(m_events + "/.request-00000001", m_events + "/.request-00000006");
  RequestNotes notes(m_events);
  const auto found = notes.Read();
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].request.id, "00000001");
  EXPECT_FALSE(found[0].isProtected);
  EXPECT_EQ(found[1].request.label, request.label);
  EXPECT_EQ(found[1].request.startSeconds, -7);
  EXPECT_TRUE(found[1].isProtected);
  for (const auto& note : found) notes.Remove(note.request.id);
  EXPECT_EQ(List(m_events), "");
}

}  // namespace
}  // namespace Tavi::EventStore
