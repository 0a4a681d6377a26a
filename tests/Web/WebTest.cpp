// The console's parts that no request shows: late connections, and what the documentation says of the settings.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>

#include "Fleet/Web/ConnectionWatch.h"
#include "Fleet/Web/WebSettings.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "SettingsFile/SettingsFile.h"

namespace {

using namespace Tavi::Web;
using namespace std::chrono_literals;
using Ksystem::FileUtils::UniqueFd;

struct Pair {
  UniqueFd here;
  UniqueFd there;
};

Pair MakePair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// Within `patience` the other side has ended the connection.
bool IsEnded(const Pair& pair, std::chrono::milliseconds patience) {
  pollfd waiting{pair.there.Get(), POLLIN, 0};
  char byte = 0;
  return ::poll(&waiting, 1, static_cast<int>(patience.count())) == 1 &&
         ::recv(pair.there.Get(), &byte, 1, MSG_DONTWAIT) == 0;
}

TEST(ConnectionWatchTest, EndsWhoDoesNotGetToARequestAndNobodyElse) {
  ConnectionWatch watch(200ms);
  ASSERT_TRUE(watch.Start());
  const Pair late = MakePair();
  const Pair served = MakePair();
  const Pair answered = MakePair();
  const Pair gone = MakePair();
  for (const auto* pair : {&late, &served, &answered, &gone}) watch.Add(pair->here.Get());
  watch.NoteRequest(served.here.Get());
  watch.NoteRequest(answered.here.Get());
  watch.Remove(gone.here.Get());
  EXPECT_TRUE(IsEnded(late, 5s));
  EXPECT_FALSE(IsEnded(served, 400ms));
  EXPECT_FALSE(IsEnded(answered, 0ms));
  EXPECT_FALSE(IsEnded(gone, 0ms));
  // From its answer on the next request is to come.
  watch.NoteAnswer(answered.here.Get());
  EXPECT_TRUE(IsEnded(answered, 5s));
}

TEST(WebSettingsTest, TheDocumentationHasTheTable) {
  std::ifstream file(DOCS "/console.md");
  std::stringstream text;
  text << file.rdbuf();
  WebSettings defaults;
  EXPECT_THAT(text.str(), testing::HasSubstr(Tavi::SettingsFile::FormatFieldTable(DescribeFields(defaults))));
}

TEST(WebSettingsTest, OnlyThisMachinesOwnAddressesNeedNoToken) {
  for (const char* address : {"127.0.0.1", "127.8.9.10", "::1"}) EXPECT_TRUE(IsLoopback(address)) << address;
  for (const char* address : {"0.0.0.0", "::", "128.0.0.1", "192.168.0.127", "::ffff:127.0.0.1", "fe80::1"}) {
    EXPECT_FALSE(IsLoopback(address)) << address;
  }
}

}  // namespace
