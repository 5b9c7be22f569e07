// The XML data table narrows for the whole process, once and for good: this executable holds the
// only test that narrows it, so every other suite keeps the full table.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "QmsysCodec.h"

// Nothing in the system narrows the table; request texts escaped with the
// data entities narrow with it. An encoder runs meanwhile, so that the thread
// sanitizer build catches a switch that races with its readers.
TEST(CodecXmlNarrowing, OneCallWithoutFullNarrowsEveryLaterCall) {
  std::atomic<bool> stop{false};
  std::thread encoder([&] {
    while (!stop.load()) QmsysCodec::EncodeXmlData("<it's>", true);
  });
  EXPECT_EQ(QmsysCodec::EncodeXmlData("it's <b>", false), "it's &lt;b&gt;");
  stop.store(true);
  encoder.join();
  const std::string special = "&><'\"\t\n\r", narrow = "&amp;&gt;&lt;'\"\t\n\r";
  EXPECT_EQ(QmsysCodec::EncodeXmlData(special, true), narrow);
  EXPECT_EQ(QmsysCodec::EncodeXmlText(special, "UTF-8", true), narrow);
}
