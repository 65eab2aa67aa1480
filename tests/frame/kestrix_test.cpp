#include "kestrix1/frame/kestrix.h"

#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kestrix1/frame/clock.h"
#include "kestrix1/frame/errors.h"
#include "kestrix1/frame/messages.h"
#include "kestrix1/frame/timing.h"
#include "tests/support/throws.h"

// Whether `line` is a trace line of the running clock that ends in `rest`.
static bool traceLine(std::string const &line, std::string const &rest) {
    return std::regex_match(line, std::regex(R"(\d{5}\.\d{3} - )" + rest));
}

TEST(Kestrix, TraceErrorAndTimingTextsHaveTheirFixedLayout) {
    // The example a host sees when upSize2X gets no output plane at 11.5 s; seconds widen.
    EXPECT_EQ(composeTrace(11.5, "upSize2X", 106, "out2X is not allocated"),
              "00011.500 - 106 - upSize2X : out2X is not allocated - ");
    EXPECT_EQ(composeTrace(123456.789, "f", -3, ""), "123456.789 - -3 - f :  - ");
    // Whatever CLOCKS_PER_SEC is, the library's clock runs at 1000 per second.
    long const expected = static_cast<long>(std::clock() * 1000.0 / CLOCKS_PER_SEC);
    long const got = kxClockMs();
    EXPECT_TRUE(got >= expected && got - expected <= 50) << got << " vs " << expected;
    static std::vector<std::string> received;
    Kestrix::toQDebug("quiet", 1, "nothing");
    Kestrix::setQDebugFunc([](char const *text) { received.emplace_back(text); });
    Kestrix::toQDebug("loud", 7, "hello");
    Kestrix::setQDebugFunc(nullptr);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_TRUE(traceLine(received[0], "7 - loud : hello - ")) << received[0];
    EXPECT_EQ(kxtest::thrown([] { kxThrow(kxErrBlendAlphaType); }),
              "ERROR - blendAlpha - in0.type()!=in1.type()");
    EXPECT_EQ(kxtest::thrown([] { kxRequire(false, "always"); }), "always");
    EXPECT_EQ(kxtest::thrown([] { kxRequireStatus(-6, kxErrMaskReset); }),
              "Error - TFDrawMask::resetMask - ippStsError");
    EXPECT_NO_THROW(kxRequire(true, "never"));
    EXPECT_NO_THROW(kxRequireStatus(0, "never"));
    // A composed text outlives the frame that composed it.
    std::string const composed =
        kxtest::thrown([] { kxThrowTrace("upSize2X", 106, "out2X is not allocated"); });
    EXPECT_TRUE(traceLine(composed, "106 - upSize2X : out2X is not allocated - ")) << composed;
    // Timing lines, the library's only console output.
    testing::internal::CaptureStdout();
    kxPrintTiming(kxTimeRemap, kxClockMs());
    kxPrintTimingNumber("a time:", kxClockMs() - 1500);
    std::string const out = testing::internal::GetCapturedStdout();
    std::regex const lines(R"(time to remap: [0-9.e-]+ s\.\na time:1\.5[0-9]*\n)");
    EXPECT_TRUE(std::regex_match(out, lines)) << out;
}
