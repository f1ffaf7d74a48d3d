#include <gtest/gtest.h>

#include "QXLog/serial/PropertyList.h"
#include "QXLog/support/QueueXml.h"

namespace qxlog::support {
namespace {

std::string wholeXml(const Array& queue) {
  std::string xml;
  serial::appendXmlPropertyList(xml, queue);
  return xml;
}

// Records with everything the writer treats specially: escapes, control
// characters, nesting, empty containers, numbers, booleans and null.
Value record(int i) {
  Dictionary d = makeStringDictionary({{"a_t", "2"}, {"a_1", "<a & b> \r\x01 ü"}});
  d.set("i", Value(int64_t{i}));
  d.set("r", Value(0.5 * i));
  d.set("b", Value(i % 2 == 0));
  d.set("n", Value());
  d.set("p",
        Value(Array{Value(makeStringDictionary({{"p_1", std::to_string(i)}})), Value(Array())}));
  d.set("e", Value(Dictionary()));
  return Value(std::move(d));
}

TEST(QueueXmlTest, AGrowingQueueGivesTheWholeWritersBytesAtEveryStep) {
  QueueXml cache;
  Array queue;
  EXPECT_EQ(cache.documentFor(queue), wholeXml(queue));
  for (int i = 0; i < 6; ++i) {
    queue.push_back(record(i));
    ASSERT_EQ(cache.documentFor(queue), wholeXml(queue)) << "after record " << i;
    EXPECT_EQ(cache.cachedCount(), queue.size());
  }
  std::optional<Value> parsed = serial::parsePropertyList(cache.documentFor(queue));
  ASSERT_TRUE(parsed.has_value() && parsed->isArray());
  // Property lists have no null and no C0 controls, so compare a plain field.
  ASSERT_EQ(parsed->asArray()->size(), queue.size());
  EXPECT_EQ(*parsed->asArray()->back().asDictionary()->find("i"), Value(int64_t{5}));
}

}  // namespace
}  // namespace qxlog::support
