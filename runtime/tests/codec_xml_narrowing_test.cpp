#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QmsysCodec.h"

// The XML data table is narrowed for the whole process, once and for good.
// This executable holds the only test that narrows it, so the rest of the
// suite keeps the full table.

TEST(CodecXmlNarrowing, OneCallWithoutFullNarrowsEveryLaterCall) {
  const std::string full = "&amp;&gt;&lt;&apos;&quot;&#x9;&#xa;&#xd;";
  EXPECT_EQ(QmsysCodec::EncodeXmlData("&><'\"\t\n\r", true), full);
  std::atomic<bool> narrowed{false}, stop{false};
  std::atomic<int> wrong{0};  // unknown outputs, or the full form after narrowing
  std::vector<std::thread> encoders;
  for (int t = 0; t < 4; ++t) {
    encoders.emplace_back([&] {
      for (bool seenNarrow = false; !stop.load();) {
        const bool alreadyNarrowed = narrowed.load();
        const std::string out = QmsysCodec::EncodeXmlData("<it's>", true);
        const bool narrow = out == "&lt;it's&gt;";
        seenNarrow = seenNarrow || narrow;
        if (!narrow && (out != "&lt;it&apos;s&gt;" || seenNarrow || alreadyNarrowed)) ++wrong;
      }
    });
  }
  EXPECT_EQ(QmsysCodec::EncodeXmlData("it's <b>", false), "it's &lt;b&gt;");
  narrowed.store(true);
  for (int i = 0; i < 1000; ++i) QmsysCodec::EncodeXmlData("x", true);
  stop.store(true);
  for (std::thread& encoder : encoders) encoder.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(QmsysCodec::EncodeXmlData("&><'\"\t\n\r", true), "&amp;&gt;&lt;'\"\t\n\r");
  EXPECT_EQ(QmsysCodec::DecodeXmlData(full), "&><'\"\t\n\r");  // decoding knows every entity
}
