#include "support/Kit.h"
#include "util/EventDic.h"

using hvn::util::EventDic;

TEST(EventDic, KeepsTheLastValueAndEntersWhatIsAskedFor) {
  EventDic event;
  event.AddParam(EventDic::kIfName, "eth0");
  event.AddParam(EventDic::kIfName, "eth1");
  EXPECT_EQ("eth1", event.GetParam(EventDic::kIfName));
  EXPECT_EQ("", event.GetParam(EventDic::kNetState));
  event.AddParam(EventDic::kNetState, std::string("a\0b", 3));
  EXPECT_EQ(std::string("a\0b", 3), event.GetParam(EventDic::kNetState));
}
