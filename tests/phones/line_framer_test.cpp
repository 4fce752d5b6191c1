// What the framing alone decides, beyond what the server test sees over loopback.
#include "phones/line_framer.h"

#include <gmock/gmock.h>

#include <string>
#include <string_view>

namespace qvn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> feed(LineFramer& framer, std::string_view bytes) {
  return framer.feed({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

TEST(LineFramerTest, DropsALineThatIsNotTextAndKeepsTheNextOne) {
  LineFramer framer;
  EXPECT_THAT(feed(framer, "{\"a\":\"\xc3\"}\n\x80\n{\"b\":1}\n"), ElementsAre("{\"b\":1}"));
  // A sequence cut short by the line feed is broken too; whole ones pass.
  EXPECT_THAT(feed(framer, "\xe2\x82\n\"\xe2\x82\xac\"\n"), ElementsAre("\"\xe2\x82\xac\""));
}

TEST(LineFramerTest, TrimsCarriageReturnsAndSkipsBlankLines) {
  LineFramer framer;
  EXPECT_THAT(feed(framer, "  {\"type\":\"ping\"}\r\n\r\n \t \n"),
              ElementsAre("{\"type\":\"ping\"}"));
  EXPECT_THAT(feed(framer, "{\"type\":\"bye\"}\r"), IsEmpty());  // the \r alone ends nothing
  EXPECT_THAT(feed(framer, "\n"), ElementsAre("{\"type\":\"bye\"}"));
  EXPECT_EQ(framer.pending(), 0u);
}

TEST(LineFramerTest, GivesUpOnceTheUnfinishedLinePassesTheCap) {
  LineFramer framer(8);
  // Only the line still waiting counts: a long one that is whole goes through.
  EXPECT_THAT(feed(framer, "0123456789\n12345678"), ElementsAre("0123456789"));
  EXPECT_FALSE(framer.tooLong());  // eight held is at the cap, not past it
  EXPECT_THAT(feed(framer, "9"), IsEmpty());
  EXPECT_TRUE(framer.tooLong());
  EXPECT_THAT(feed(framer, "\nok\n"), IsEmpty());  // nothing more is taken
  EXPECT_EQ(framer.pending(), 0u);
  EXPECT_EQ(LineFramer::kLongestLine, size_t(1) << 20);
}

}  // namespace
}  // namespace qvn
