// The XML data table narrows for the whole process, once and for good: this executable holds the
// only test that narrows it, so every other suite keeps the full table.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QmsysCodec.h"

TEST(CodecXmlNarrowing, OneCallWithoutFullNarrowsEveryLaterCall) {
  const std::string special = "&><'\"\t\n\r", full = "&amp;&gt;&lt;&apos;&quot;&#x9;&#xa;&#xd;";
  std::atomic<bool> narrowed{false}, stop{false};
  std::atomic<int> wrong{0};  // unknown outputs, or the full form once narrowed
  std::vector<std::thread> encoders;
  for (int t = 0; t < 4; ++t) {
    encoders.emplace_back([&] {
      for (bool seenNarrow = false; !stop.load();) {
        const bool mustBeNarrow = seenNarrow || narrowed.load();  // never full again
        const std::string out = QmsysCodec::EncodeXmlData("<it's>", true);
        seenNarrow = out == "&lt;it's&gt;";
        wrong += !seenNarrow && (mustBeNarrow || out != "&lt;it&apos;s&gt;");
      }
    });
  }
  EXPECT_EQ(QmsysCodec::EncodeXmlData("it's <b>", false), "it's &lt;b&gt;");
  narrowed.store(true);
  for (int i = 0; i < 1000; ++i) QmsysCodec::EncodeXmlData("x", true);
  stop.store(true);
  for (std::thread& encoder : encoders) encoder.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(QmsysCodec::EncodeXmlData(special, true), "&amp;&gt;&lt;'\"\t\n\r");
  // Request texts escaped with the data entities narrow with them.
  EXPECT_EQ(QmsysCodec::EncodeXmlText(special, "UTF-8", true), "&amp;&gt;&lt;'\"\t\n\r");
  EXPECT_EQ(QmsysCodec::DecodeXmlData(full), special);  // decoding knows every entity
}
