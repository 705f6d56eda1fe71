// HTTP live streaming of media_relay in a browser, by a script that people use for that. Where
// script/bootstrap live has not installed it, the cases say so and end.
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support/program/Browser.h"
#include "support/program/RelayProgram.h"

using namespace Orvex::Testing;
using nlohmann::json;

namespace {

/// Where script/bootstrap puts it.
std::string playerScript() {
    const char* const cache = std::getenv("XDG_CACHE_HOME");
    const char* const home = std::getenv("HOME");
    const std::string folder =
        cache != nullptr ? cache : std::string(home != nullptr ? home : "") + "/.cache";
    return folder + "/reticor/hls.js-1.7.4/hls.min.js";
}

/// A page that plays `url`. What happens is in `fatal` and `errors`, and how far it is after the time of day
/// four times a second in `delays`.
std::string writePlayer(const TempFolder& folder, const std::string& url, bool parts) {
    const std::string file = folder.file("player.html");
    std::ofstream(file) << "<video id=v muted></video><script src='file://" << playerScript()
                        << R"('></script>
<script>
    window.fatal = 0;
    window.errors = [];
    window.delays = [];
    const hls = new Hls({lowLatencyMode: )"
                        << (parts ? "true" : "false") << R"(, maxLiveSyncPlaybackRate: 1.5});
    hls.on(Hls.Events.ERROR, (event, data) => { errors.push(data.details); fatal += data.fatal ? 1 : 0; });
    hls.loadSource(")" << url
                        << R"(");
    hls.attachMedia(v);
    v.play();
    setInterval(() => { if (hls.playingDate) delays.push((Date.now() - hls.playingDate) / 1000); }, 250);
</script>)";
    return "file://" + file;
}

/// Plays for so long, and says what came of it.
json play(bool parts, int seconds) {
    const TempFolder folder;
    RelayProgram relay({"--input", makeStream(folder, "libx264", 4, 50, true, "160x96"), "--loop"});
    Browser browser(writePlayer(folder, relay.url("/hls/live.m3u8"), parts));
    EXPECT_TRUE(browser.becomesTrue("window.delays && v.currentTime > 0 && !v.paused && v.readyState > 2"))
        << browser.evaluate("JSON.stringify(errors)");
    browser.evaluate("window.began = v.currentTime");
    for (int played = 0;
         played < seconds && !testing::Test::HasFailure();) {  // in pieces, each with its limit
        played += std::min(seconds - played, 5);
        EXPECT_TRUE(browser.becomesTrue("v.currentTime > began + " + std::to_string(played)));
    }
    const json found = browser.evaluate(R"((() => {
        const quality = v.getVideoPlaybackQuality();
        const late = delays.slice(delays.length / 2).sort((a, b) => a - b);
        return {fatal: fatal, errors: errors, pictures: quality.totalVideoFrames,
                dropped: quality.droppedVideoFrames, delay: late[late.length >> 1],
                parts: performance.getEntriesByType("resource")
                    .filter(entry => /\d\.\d+\.m4s$/.test(entry.name)).length, width: v.videoWidth};
    })())");
    EXPECT_EQ(0, relay.end());
    return found;
}

bool isLeftOut() {
    const bool absent = access(playerScript().c_str(), R_OK) != 0;
    if (absent) {
        std::printf("left out: no %s; script/bootstrap live installs it\n", playerScript().c_str());
    }
    return absent;
}

/// For a machine that has nothing else to do. Without script/measure_hls, which says how long, nothing is
/// played.
void measure(bool parts, double most_s) {
    const char* const told = std::getenv("RETICOR_PLAY_SECONDS");
    if (told == nullptr) {
        std::printf("left out: it takes half a minute; script/measure_hls runs it\n");
        return;
    }
    if (isLeftOut()) {
        return;
    }
    const json found = play(parts, std::atoi(told));
    std::printf("%s: %s\n", parts ? "parts" : "plain segments", found.dump().c_str());
    ASSERT_TRUE(found.is_object());
    EXPECT_EQ(0, found["fatal"]);
    EXPECT_LE(found["delay"], most_s);
    EXPECT_LE(found["dropped"].get<double>(), found["pictures"].get<double>() / 100);
}

}  // namespace

TEST(RelayHlsBrowser, PlaysPartsSoonAfterTheyAreMade) {
    if (isLeftOut()) {
        return;
    }
    const json found = play(true, 4);
    ASSERT_TRUE(found.is_object());
    EXPECT_EQ(0, found["fatal"]) << found;
    EXPECT_EQ(160, found["width"]);
    EXPECT_GT(found["pictures"], 75) << found;
    EXPECT_GT(found["delay"], 0);
    EXPECT_GT(found["parts"], 5) << found;
}

TEST(RelayHlsMeasured, PartsPlayAtMostOnePointTwoSecondsAfterThePicture) {
    measure(true, 1.2);
}

TEST(RelayHlsMeasured, PlainSegmentsPlayAtMostSevenSecondsAfterThePicture) {
    measure(false, 7);
}
