#include "support/Kit.h"
#include "util/EventDic.h"

using hvn::util::EventDic;

TEST(EventDic, KeepsTheLastValueOfEachKeyAndHasNoneAtFirst) {
  EventDic event;
  EXPECT_EQ(EventDic::kEventNone, event.type_);
  EXPECT_EQ("", event.GetParam(EventDic::kIfName));
  event.AddParam(EventDic::kIfName, "eth0");
  event.AddParam(EventDic::kIfName, "eth1");
  EXPECT_EQ("eth1", event.GetParam(EventDic::kIfName));
}
