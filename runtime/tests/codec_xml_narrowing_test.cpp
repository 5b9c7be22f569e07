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

  constexpr int kThreads = 4;
  std::atomic<bool> narrowed{false};
  std::atomic<bool> stop{false};
  std::atomic<int> unexpected{0};
  std::atomic<int> fullAfterNarrowing{0};
  std::vector<std::thread> encoders;
  for (int t = 0; t < kThreads; ++t) {
    encoders.emplace_back([&] {
      bool seenNarrow = false;
      while (!stop.load()) {
        const bool alreadyNarrowed = narrowed.load();
        const std::string out = QmsysCodec::EncodeXmlData("<it's>", true);
        if (out == "&lt;it's&gt;") {
          seenNarrow = true;
        } else if (out == "&lt;it&apos;s&gt;") {
          // Once narrowed, the full form never comes back.
          if (seenNarrow || alreadyNarrowed) ++fullAfterNarrowing;
        } else {
          ++unexpected;
        }
      }
    });
  }

  EXPECT_EQ(QmsysCodec::EncodeXmlData("it's <b>", false), "it's &lt;b&gt;");
  narrowed.store(true);
  for (int i = 0; i < 1000; ++i) QmsysCodec::EncodeXmlData("x", true);
  stop.store(true);
  for (std::thread& encoder : encoders) encoder.join();

  EXPECT_EQ(unexpected.load(), 0);
  EXPECT_EQ(fullAfterNarrowing.load(), 0);
  EXPECT_EQ(QmsysCodec::EncodeXmlData("it's", true), "it's");
  EXPECT_EQ(QmsysCodec::EncodeXmlData("&><'\"\t\n\r", true), "&amp;&gt;&lt;'\"\t\n\r");
  // Decoding still knows every entity.
  EXPECT_EQ(QmsysCodec::DecodeXmlData(full), "&><'\"\t\n\r");
}
