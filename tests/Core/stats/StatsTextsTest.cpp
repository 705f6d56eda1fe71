// StatsTexts: the texts of a snapshot, read by readers that refuse what a stranger's would refuse.
#include "Core/count/ObjectRoll.h"
#include "Core/stats/StatsTexts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <Reticor/Stats.h>

#include "Core/stats/MediaSource.h"
#include "Tool/judge/VerdictText.h"
#include "support/core/Exposition.h"
#include "support/core/JsonValue.h"
#include "support/core/MadeSnapshot.h"
#include "support/core/SockPoolFixture.h"

namespace Orvex::Testing {
namespace {

using namespace Reticor;

using Writer = size_t (CStats::*)(char*, size_t) const;

std::string written(const CStats& stats, Writer write) {
    std::string text((stats.*write)(nullptr, 0), '?');
    EXPECT_EQ(text.size(), (stats.*write)(&text[0], text.size()));
    return text;
}

std::string written(Writer write) {
    CStats stats;
    EXPECT_EQ(0, stats.Take());
    return written(stats, write);
}

class StatsTexts : public SockPoolFixture {};

// ---- media ----------------------------------------------------------------------------------------------

// A buffer with more senders than the text and the metrics have.
void manySenders(MediaRows& rows) {
    constexpr size_t SENDERS = MOST_SENDERS + 5;
    rows.buffers.push_back(
        {sizeof(BufferStats), 1, 3, SENDERS, 7, 70000, 900000, 9, 95000, 0, 0, 0, 0, 0, 0, 0});
    for (size_t i = 0; i < SENDERS; ++i) {
        SenderVerdict one;
        one.kind = i == 0 ? SenderVerdictKind::STALLED : SenderVerdictKind::KEEPS_UP;
        one.sender = -65536 * static_cast<int64_t>(i + 1);
        one.buffer = 3;
        one.lag_us = 1500000;
        std::snprintf(one.sentence, sizeof one.sentence, "%s", i == 0 ? "stalled for 1.5 s" : "keeps up");
        rows.senders.push_back(one);
    }
}

TEST_F(StatsTexts, HaveTheSendersOfMediaThatSufferMost) {
    MediaSource::Set(&manySenders);
    const Exposition metrics(written(&CStats::toPrometheus));
    EXPECT_EQ(25, metrics.at("reticor_media_buffer_senders{buffer=\"3\"}"));
    EXPECT_EQ(1, metrics.at("reticor_media_senders{verdict=\"stalled\"}"));
    EXPECT_EQ(24, metrics.at("reticor_media_senders{verdict=\"keeps_up\"}"));
    EXPECT_EQ(1.5, metrics.at("reticor_media_sender_lag_seconds{sender=\"-65536\",buffer=\"3\"}"));
    EXPECT_EQ(0U,
              metrics.series().count("reticor_media_sender_lag_seconds{sender=\"-1376256\",buffer=\"3\"}"));
    const std::string json = written(&CStats::toJson);
    EXPECT_TRUE(JsonValue::parse(json)) << json;
    EXPECT_NE(std::string::npos, json.find("\"sender\":\"-1638400\"")) << "all of them";
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos, text.find("stalled for 1.5 s\n")) << text;
    EXPECT_NE(std::string::npos, text.find("media buffer 3: 25 senders, 9 frames held, 95000 bytes\n"))
        << text;
    EXPECT_NE(std::string::npos, text.find("and 5 that suffer less\n")) << text;
}

void oneLateSender(MediaRows& rows) {
    rows.buffers.push_back({sizeof(BufferStats), 1, 3, 1, 7, 70000, 900000, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    SenderVerdict late;
    late.sender = -65536;
    late.buffer = 3;
    late.stepped.by_level[5] = 4;
    late.stepped.by_level[10] = 1;
    late.stepped.by_channel[0] = 5;
    late.filtered.by_level[2] = 3;
    late.filtered.by_channel[7] = 3;
    rows.senders.push_back(late);
}

TEST_F(StatsTexts, HaveTheFramesThatASenderWasNotSentByTheirCause) {
    MediaSource::Set(&oneLateSender);
    const std::string json = written(&CStats::toJson);
    EXPECT_TRUE(JsonValue::parse(json)) << json;
    EXPECT_NE(std::string::npos,
              json.find("\"drops\":{\"stepped\":{\"frames\":5,\"levels\":{\"5\":4,\"10\":1},"
                        "\"channels\":{\"0\":5}},\"filtered\":{\"frames\":3,\"levels\":{\"2\":3},"
                        "\"channels\":{\"7\":3}}}"))
        << json;
    const Exposition metrics(written(&CStats::toPrometheus));
    const auto dropped = [&metrics](const char* cause) {
        return metrics.at(
            std::string("reticor_media_sender_dropped_frames_total{sender=\"-65536\",buffer=\"3\","
                        "cause=\"") +
            cause + "\"}");
    };
    EXPECT_EQ(5, dropped("stepped"));
    EXPECT_EQ(3, dropped("filtered"));
    for (const char* cause : {"too_old", "no_key", "not_chosen", "disposable"}) {
        EXPECT_EQ(0, dropped(cause)) << cause;
    }
}

// The last buffer may have gone with them.
void twoThatHaveEnded(MediaRows& rows) {
    SenderVerdict one;
    one.kind = SenderVerdictKind::STALLED;
    one.sender = -131072;
    one.buffer = 3;
    std::snprintf(one.sentence, sizeof one.sentence, "stalled for 3.0 s");
    rows.ended.push_back(one);
    one.sender = -65536;
    one.kind = SenderVerdictKind::KEEPS_UP;
    std::snprintf(one.sentence, sizeof one.sentence, "keeps up");
    rows.ended.push_back(one);
    rows.ended_ever[static_cast<size_t>(SenderVerdictKind::STALLED)] = 2;
    rows.ended_ever[static_cast<size_t>(SenderVerdictKind::KEEPS_UP)] = 41;
}

TEST_F(StatsTexts, HaveTheSendersOfMediaThatHaveEnded) {
    EXPECT_EQ(std::string::npos, written(&CStats::toText).find("have ended")) << "there was no media";
    EXPECT_EQ(std::string::npos, written(&CStats::toPrometheus).find("reticor_media"));
    MediaSource::Set(&twoThatHaveEnded);
    const Exposition metrics(written(&CStats::toPrometheus));
    EXPECT_EQ(2, metrics.at("reticor_media_senders_ended_total{verdict=\"stalled\"}"));
    EXPECT_EQ(41, metrics.at("reticor_media_senders_ended_total{verdict=\"keeps_up\"}"));
    EXPECT_EQ(0, metrics.at("reticor_media_senders_ended_total{verdict=\"silent\"}"));
    EXPECT_EQ(0, metrics.at("reticor_media_senders{verdict=\"stalled\"}"));
    const std::string json = written(&CStats::toJson);
    EXPECT_NE(std::string::npos, json.find("\"media_senders_ended\":[{\"sender\":\"-131072\",\"buffer\":3,"
                                           "\"verdict\":\"stalled\",\"why\":\"stalled for 3.0 s\""))
        << json;
    EXPECT_NE(std::string::npos, json.find("{\"verdict\":\"keeps_up\",\"senders\":0,\"ended\":41}")) << json;
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos, text.find("\nsenders that have ended: 43, keeps_up 41, stalled 2\n"
                                           "-131072               3       ended                 "
                                           "stalled for 3.0 s\n-65536 "))
        << text;
}

TEST_F(StatsTexts, OfMediaAreReadByPlaceAsFarAsTheCallerKnows) {
    CStats now;
    BufferStats buffer;
    SenderVerdict sender;
    VerdictStats verdict;
    EXPECT_EQ(
        0U, now.GetBufferCount() + now.GetSenderCount() + now.GetEndedSenderCount() + now.GetVerdictCount());
    EXPECT_EQ(-1, now.GetBuffer(0, buffer));
    EXPECT_EQ(-1, now.GetSender(0, sender));
    EXPECT_EQ(-1, now.GetEndedSender(0, sender));
    EXPECT_EQ(-1, now.GetVerdict(0, verdict));
    MediaSource::Set(&manySenders);
    ASSERT_EQ(0, now.Take());
    ASSERT_EQ(1U, now.GetBufferCount());
    ASSERT_EQ(0, now.GetBuffer(0, buffer));
    EXPECT_EQ(3U, buffer.buffer);
    EXPECT_EQ(95000U, buffer.held_bytes);
    EXPECT_EQ(-1, now.GetBuffer(1, buffer));
    ASSERT_EQ(MOST_SENDERS + 5, now.GetSenderCount()) << "all of them";
    ASSERT_EQ(0, now.GetSender(0, sender));
    EXPECT_EQ(-65536, sender.sender);
    EXPECT_STREQ("stalled for 1.5 s", sender.sentence);
    SenderVerdict old;
    old.size = offsetof(SenderVerdict, buffer);
    old.buffer = 99;
    ASSERT_EQ(0, now.GetSender(1, old));
    EXPECT_EQ(-131072, old.sender);
    EXPECT_EQ(99U, old.buffer) << "memory that the caller did not offer";
    old.size = 4;
    EXPECT_EQ(-1, now.GetSender(1, old));
    uint64_t keeping_up = 0;
    for (size_t place = 0; now.GetVerdict(place, verdict) == 0; ++place) {
        keeping_up += verdict.kind == SenderVerdictKind::KEEPS_UP ? verdict.senders : 0;
    }
    EXPECT_EQ(MOST_SENDERS + 4, keeping_up);
}

const ObjectKind BOOKED{"shelf", {{{"room", "Where it stands.", false, true}, {"books", "On it.", false}}}};

TEST_F(StatsTexts, DoNotAddUpWhatNamesSomething) {
    RollEntry shelf(
        BOOKED,
        [](const void*) -> ObjectValues {
            return {7, 100};
        },
        nullptr);
    shelf.enter(-65536);
    EXPECT_NE(
        std::string::npos,
        written(&CStats::toJson).find("{\"kind\":\"shelf\",\"id\":\"-65536\",\"room\":7,\"books\":100}"));
    const Exposition metrics(written(&CStats::toPrometheus));
    EXPECT_EQ(100, metrics.at("reticor_shelf_books"));
    EXPECT_EQ(0U, metrics.series().count("reticor_shelf_room"));
}

// ---- byte-stream senders, files, receivers, ticks --------------------------------------------------------

const ObjectKind LAMP{"lamp", {{{"watts", "What it takes.", false}, {"flashes", "So far.", true}}}};

class Lamp {
public:
    explicit Lamp(uint64_t watts) : m_watts(watts) { m_roll.enter(-65536 * static_cast<int64_t>(watts)); }

private:
    static ObjectValues figures(const void* object) { return {static_cast<const Lamp*>(object)->m_watts, 3}; }

    const uint64_t m_watts;
    RollEntry m_roll{LAMP, &figures, this};
};

TEST_F(StatsTexts, HaveObjectsOneByOneInJsonAndAddedUpInMetrics) {
    const Lamp small(5);
    const Lamp large(40);
    const std::string json = written(&CStats::toJson);
    EXPECT_TRUE(JsonValue::parse(json)) << json;
    EXPECT_NE(std::string::npos,
              json.find("\"objects\":[{\"kind\":\"lamp\",\"id\":\"-2621440\",\"watts\":40,\"flashes\":3},"
                        "{\"kind\":\"lamp\",\"id\":\"-327680\",\"watts\":5,\"flashes\":3}"))
        << json;
    const Exposition metrics(written(&CStats::toPrometheus));
    EXPECT_EQ(2, metrics.at("reticor_lamps"));
    EXPECT_EQ(45, metrics.at("reticor_lamp_watts"));
    EXPECT_EQ(6, metrics.at("reticor_lamp_flashes"));
    EXPECT_NE(std::string::npos, written(&CStats::toText).find("lamp -2621440")) << written(&CStats::toText);
}

TEST_F(StatsTexts, HaveTheYoungestObjectsInTheTextForPeople) {
    std::vector<std::unique_ptr<Lamp>> lamps;
    for (size_t i = 1; i <= MOST_OBJECTS + 3; ++i) {
        lamps.push_back(std::make_unique<Lamp>(i));
    }
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos, text.find("lamp -" + std::to_string(65536 * (MOST_OBJECTS + 3)) + " "));
    EXPECT_EQ(std::string::npos, text.find("lamp -65536 "));
    EXPECT_NE(std::string::npos, text.find("that are older\n")) << text;
}

TEST(StatsObjects, AreReadByPlaceAsFarAsTheCallerKnows) {
    const Lamp lamp(7);
    CStats now;
    ObjectStats object;
    EXPECT_EQ(0U, now.GetObjectCount());
    EXPECT_EQ(-1, now.GetObject(0, object));
    ASSERT_EQ(0, now.Take());
    ASSERT_LE(1U, now.GetObjectCount());
    ASSERT_EQ(0, now.GetObject(0, object));
    EXPECT_STREQ("lamp", object.kind);
    EXPECT_EQ(-7 * 65536, object.id);
    EXPECT_STREQ("watts", object.names[0]);
    EXPECT_EQ(7U, object.values[0]);
    EXPECT_EQ(nullptr, object.names[2]);
    EXPECT_EQ(-1, now.GetObject(now.GetObjectCount(), object));
    ObjectStats old;
    old.size = offsetof(ObjectStats, names);
    old.values[0] = 99;
    EXPECT_EQ(0, now.GetObject(0, old));
    EXPECT_EQ(-7 * 65536, old.id);
    EXPECT_EQ(99U, old.values[0]) << "memory that the caller did not offer";
    old.size = 4;
    EXPECT_EQ(-1, now.GetObject(0, old));
}

// ---- JSON and text ---------------------------------------------------------------------------------------

TEST_F(StatsTexts, TheJsonIsJsonWithIdsAsStrings) {
    Gate gate;
    holdInMessage(gate);
    const std::string text = written(&CStats::toJson);
    EXPECT_TRUE(JsonValue::parse(text)) << text;
    EXPECT_NE(std::string::npos, text.find("\"handler\":\"" + std::to_string(handler->GetID()) + "\""))
        << text;
    EXPECT_NE(std::string::npos, text.find("\"class\":\"Orvex::Testing::TestHandler\"")) << text;
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << "one line, that a reader may split by";
}

TEST_F(StatsTexts, TheTextTellsInWhichCallAWorkerIs) {
    Gate gate;
    holdInMessage(gate);
    const std::string text = written(&CStats::toText);
    EXPECT_NE(std::string::npos,
              text.find("is in handle_message of handler " + std::to_string(handler->GetID()) + "\n"))
        << text;
}

TEST_F(StatsTexts, AShortRoomIsFilledAndTheWholeLengthTold) {
    CStats stats;
    ASSERT_EQ(0, stats.Take());
    const std::string whole = written(stats, &CStats::toText);
    char room[11] = "0123456789";
    EXPECT_EQ(whole.size(), stats.toText(room, 5));
    EXPECT_EQ(whole.substr(0, 5) + "56789", room);
    EXPECT_EQ(0u, CStats().toText(room, 5));
}

// ---- made snapshots --------------------------------------------------------------------------------------

TEST(JsonReader, RefusesWhatIsNotJson) {
    for (const char* wrong : {"",          " ",     "{",        "}",   "[1,]", "[1 2]",   "{\"a\":1,\"a\":2}",
                              "{\"a\" 1}", "{a:1}", "{\"a\":}", "{}x", "01",   "+1",      "1.",
                              ".5",        "1e",    "--1",      "tru", "\"a",  "\"\\x\"", "\"a\nb\"",
                              "\"\\u12\"", "[",     "nul"}) {
        EXPECT_FALSE(JsonValue::parse(wrong)) << wrong;
    }
}

TEST(JsonReader, ReadsWhatIsJson) {
    const std::string text =
        " {\"a\" : [1, -2.5e+3, true, null, \"x\\\"\\\\\\u0041\\n\"], \"b\":{}, \"c\":18446744073709551615} ";
    const std::optional<JsonValue> found = JsonValue::parse(text);
    ASSERT_TRUE(found);
    EXPECT_EQ(3u, found->size());
    EXPECT_EQ(5u, (*found)["a"].size());
    EXPECT_TRUE((*found)["a"][0].is(uint64_t{1}));
    EXPECT_EQ("-2.5e+3", (*found)["a"][1].text());
    EXPECT_EQ(JsonValue::Kind::TRUTH, (*found)["a"][2].kind());
    EXPECT_EQ(JsonValue::Kind::NOTHING, (*found)["a"][3].kind());
    EXPECT_TRUE((*found)["a"][4].is("x\"\\A\n"));
    EXPECT_EQ(0u, (*found)["b"].size());
    EXPECT_TRUE((*found)["c"].is(UINT64_MAX));
}

std::string textOf(const Snapshot& snapshot, void (*write)(const Snapshot&, TextRoom&)) {
    TextRoom out;
    write(snapshot, out);
    return out.text();
}

void expectSpread(const TimeSpread& spread, const JsonValue& json) {
    EXPECT_EQ(6u, json.size());
    EXPECT_TRUE(json["count"].is(spread.GetCount()));
    EXPECT_TRUE(json["sum_ns"].is(spread.sum_ns));
    EXPECT_TRUE(json["p50_ns"].is(spread.GetBound(0.5)));
    EXPECT_TRUE(json["p90_ns"].is(spread.GetBound(0.9)));
    EXPECT_TRUE(json["p99_ns"].is(spread.GetBound(0.99)));
    EXPECT_TRUE(json["max_ns"].is(spread.max_ns));
}

void expectPool(const PoolStats& pool, const JsonValue& json) {
    EXPECT_EQ(6 + POOL_FIGURE_COUNT, json.size());
    EXPECT_EQ(std::to_string(pool.pool), json["pool"].text());
    EXPECT_TRUE(json["workers"].is(uint64_t{pool.workers}));
    EXPECT_TRUE(json["busy"].is(uint64_t{pool.busy}));
    EXPECT_TRUE(json["cpu_ns"].is(pool.cpu_ns));
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        EXPECT_TRUE(json[POOL_FIGURES[i].name].is(pool.*POOL_FIGURES[i].value)) << POOL_FIGURES[i].name;
    }
    expectSpread(pool.wait, json["wait"]);
    expectSpread(pool.run, json["run"]);
}

void expectWorker(const WorkerStats& worker, const JsonValue& json) {
    EXPECT_EQ(std::to_string(worker.pool), json["pool"].text());
    EXPECT_EQ(std::to_string(worker.thread_id), json["thread"].text());
    EXPECT_TRUE(json["cpu_ns"].is(worker.cpu_ns));
    EXPECT_TRUE(json["calls"].is(worker.calls));
    EXPECT_TRUE(json["served"].is(worker.served));
    EXPECT_TRUE(json["handler"].is(std::to_string(worker.handler))) << "a string";
    EXPECT_TRUE(json["call"].is(std::string(worker.call)));
    EXPECT_TRUE(json["class"].is(std::string(worker.class_name))) << worker.class_name;
    EXPECT_EQ(8u, json.size());
}

void expectClass(const HandlerClassStats& row, const JsonValue& json) {
    EXPECT_TRUE(json["class"].is(std::string(row.name))) << row.name;
    EXPECT_TRUE(json["live"].is(row.live));
    EXPECT_TRUE(json["opened"].is(row.opened));
    EXPECT_TRUE(json["closed"].is(row.closed));
    EXPECT_TRUE(json["calls"].is(row.calls));
    EXPECT_TRUE(json["timed"].is(row.timed));
    EXPECT_TRUE(json["time_ns"].is(row.time_ns));
}

void expectSender(const SenderVerdict& row, const JsonValue& json) {
    EXPECT_TRUE(json["sender"].is(std::to_string(row.sender))) << "a string";
    EXPECT_TRUE(json["buffer"].is(row.buffer));
    EXPECT_TRUE(json["verdict"].is(std::string(VerdictText::name(row.kind))));
    EXPECT_TRUE(json["why"].is(std::string(row.sentence))) << row.sentence;
    EXPECT_TRUE(json["lag_us"].is(row.lag_us));
    EXPECT_TRUE(json["lag_bytes"].is(row.lag_bytes));
    EXPECT_TRUE(json["lag_frames"].is(row.lag_frames));
    EXPECT_TRUE(json["unsent_bytes"].is(row.unsent_bytes));
    EXPECT_TRUE(json["blocked_us"].is(row.blocked_us));
    EXPECT_TRUE(json["stream_rate"].is(row.stream_rate));
    EXPECT_TRUE(json["taken_rate"].is(row.taken_rate));
    EXPECT_TRUE(json["closed_percent"].is(uint64_t{row.closed_percent}));
    EXPECT_TRUE(json["rtt_us"].is(uint64_t{row.rtt_us}));
    EXPECT_TRUE(json["hole_frames"].is(row.hole_frames));
    EXPECT_TRUE(json["skipped_frames"].is(row.skipped_frames));
    EXPECT_TRUE(json["thinned_frames"].is(row.thinned_frames));
}

void expectVerdict(const VerdictStats& row, const JsonValue& json) {
    EXPECT_TRUE(json["verdict"].is(std::string(VerdictText::name(row.kind))));
    EXPECT_TRUE(json["senders"].is(row.senders));
    EXPECT_TRUE(json["ended"].is(row.ended));
    EXPECT_EQ(3u, json.size());
}

void expectObject(const ObjectRow& row, const JsonValue& json) {
    EXPECT_TRUE(json["kind"].is(std::string(row.kind->name)));
    EXPECT_TRUE(json["id"].is(std::to_string(row.id))) << "a string";
    EXPECT_TRUE(json["height"].is(row.values[0]));
    EXPECT_TRUE(json["turns"].is(row.values[1]));
    EXPECT_EQ(4u, json.size());
}

void expectMemory(const MemoryStats& row, const JsonValue& json) {
    EXPECT_TRUE(json["kind"].is(std::string(row.kind)));
    EXPECT_TRUE(json["piece_bytes"].is(row.piece_bytes));
    EXPECT_TRUE(json["pieces"].is(row.pieces));
    EXPECT_TRUE(json["bytes"].is(row.bytes));
    EXPECT_EQ(4u, json.size());
}

void expectAlarm(const AlarmStats& row, const JsonValue& json) {
    EXPECT_TRUE(json["alarm"].is(std::string(CStats::GetAlarmName(row.kind))));
    EXPECT_EQ(std::to_string(row.pool), json["pool"].text());
    EXPECT_EQ(row.lasts != 0 ? "true" : "false", json["lasts"].text());
    EXPECT_TRUE(json["since_us"].is(row.since_us));
    EXPECT_TRUE(json["ended_us"].is(row.ended_us));
    EXPECT_TRUE(json["times"].is(row.times));
    EXPECT_TRUE(json["amount"].is(row.amount));
    EXPECT_TRUE(json["most_us"].is(row.most_us));
    EXPECT_TRUE(json["text"].is(std::string(row.text)));
    EXPECT_EQ(9u, json.size());
}

template <class Row>
void expectRows(const std::vector<Row>& rows, const JsonValue& json,
                void (*expect)(const Row&, const JsonValue&)) {
    ASSERT_EQ(JsonValue::Kind::LIST, json.kind());
    ASSERT_EQ(rows.size(), json.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        expect(rows[i], json[i]);
    }
}

TEST(MadeTexts, WhatIsReadFromTheJsonIsWhatWasInTheSnapshot) {
    SeededRandom random;
    for (int round = 0; round < 60 && !testing::Test::HasFailure(); ++round) {
        const MadeSnapshot made(random);
        const Snapshot& from = made.snapshot;
        const std::string text = textOf(from, &write_json);
        const std::optional<JsonValue> read = JsonValue::parse(text);
        ASSERT_TRUE(read) << text;
        EXPECT_EQ(text.size() - 1, text.find('\n')) << "one line";
        EXPECT_EQ(19u, read->size());
        EXPECT_EQ(std::to_string(from.process.pid), (*read)["pid"].text());
        EXPECT_TRUE((*read)["version"].is(uint64_t{STATS_VERSION}));
        EXPECT_TRUE((*read)["taken_us"].is(from.process.taken_us));
        EXPECT_EQ(from.process.timing != 0 ? "true" : "false", (*read)["timing"].text());
        EXPECT_TRUE((*read)["handlers"].is(from.process.handlers));
        EXPECT_TRUE((*read)["timers_armed"].is(from.process.timers_armed));
        EXPECT_TRUE((*read)["stuck"].is(from.process.stuck));
        EXPECT_TRUE((*read)["stuck_ever"].is(from.process.stuck_ever));
        expectSpread(from.process.timer_lateness, (*read)["timer_lateness"]);
        expectRows(from.pools, (*read)["pools"], &expectPool);
        expectRows(from.workers, (*read)["workers"], &expectWorker);
        expectRows(from.classes, (*read)["classes"], &expectClass);
        expectRows(from.objects, (*read)["objects"], &expectObject);
        expectRows(from.media.senders, (*read)["media_senders"], &expectSender);
        expectRows(from.media.ended, (*read)["media_senders_ended"], &expectSender);
        expectRows(from.verdicts, (*read)["media_verdicts"], &expectVerdict);
        expectRows(from.memory, (*read)["memory"], &expectMemory);
        expectRows(from.alarms, (*read)["alarms"], &expectAlarm);
        expectRows<BufferStats>(from.media.buffers, (*read)["media_buffers"],
                                [](const BufferStats& row, const JsonValue& json) {
                                    EXPECT_TRUE(json["buffer"].is(row.buffer));
                                    EXPECT_TRUE(json["senders"].is(row.senders));
                                    EXPECT_TRUE(json["frames"].is(row.frames));
                                    EXPECT_TRUE(json["bytes"].is(row.bytes));
                                    EXPECT_TRUE(json["put_bytes"].is(row.put_bytes));
                                    EXPECT_TRUE(json["held_frames"].is(row.held_frames));
                                    EXPECT_TRUE(json["held_bytes"].is(row.held_bytes));
                                    EXPECT_TRUE(json["expired_frames"].is(row.expired_frames));
                                    EXPECT_TRUE(json["expired_bytes"].is(row.expired_bytes));
                                    EXPECT_TRUE(json["debt_bytes"].is(row.debt_bytes));
                                    EXPECT_TRUE(json["pinned_frames"].is(row.pinned_frames));
                                    EXPECT_TRUE(json["pinned_bytes"].is(row.pinned_bytes));
                                    EXPECT_TRUE(json["kept_frames"].is(row.kept_frames));
                                    EXPECT_TRUE(json["kept_bytes"].is(row.kept_bytes));
                                });
    }
}

// ---- the text for people ---------------------------------------------------------------------------------

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(MadeTexts, TheTextOfAnEmptySnapshotIsItsFirstLineAndTheHeadOfTheClasses) {
    const std::vector<std::string> lines = linesOf(textOf(Snapshot(), &write_text));
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("handlers 0, armed timers 0, timing off, stuck calls 0 (0 ever)", lines[0]);
    EXPECT_EQ(0u, lines[1].find("class "));
}

TEST(MadeTexts, TheTextHasEachFigureOfAPoolBesideItsName) {
    Snapshot snapshot;
    PoolStats pool{};
    pool.pool = 7;
    pool.workers = 4;
    pool.busy = 3;
    pool.cpu_ns = 1234567890;
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        pool.*POOL_FIGURES[i].value = 1000 + i;
    }
    snapshot.pools.push_back(pool);
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    ASSERT_EQ(2 + 1 + POOL_FIGURE_COUNT / 3, lines.size()) << "three in a line, and no spread that is empty";
    EXPECT_EQ("pool 7: 4 workers, 3 busy, processor time 1.234 s", lines[1]);
    for (size_t i = 0; i < POOL_FIGURE_COUNT; ++i) {
        const std::string figure = std::string(POOL_FIGURES[i].name) + " " + std::to_string(1000 + i);
        EXPECT_EQ(2 + i % 3 * 34, lines[2 + i / 3].find(figure)) << figure;
    }
}

TEST(MadeTexts, TheTextTellsSpreadsInMicroseconds) {
    Snapshot snapshot;
    TimeSpread& late = snapshot.process.timer_lateness;
    late.count[10] = 90;  // below 1.024 us
    late.count[20] = 9;   // below 1048.576 us
    late.count[30] = 1;
    late.max_ns = 900000000;
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    EXPECT_EQ(
        "  lateness of timers: 100 times, us: below 1.02 (half), 1.02 (90 %), 1048.57 (99 %), 900000 at most",
        lines[1]);
}

// An exponent is not what people read a time by.
TEST(MadeTexts, LongTimesAreWrittenOutForPeople) {
    Snapshot snapshot;
    PoolStats pool{};
    pool.cpu_ns = 300000000000000;
    snapshot.pools.push_back(pool);
    HandlerClassStats row{};
    row.name = "Shop::Till";
    row.timed = 1;
    row.time_ns = 2000000000000;
    snapshot.classes.push_back(row);
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    EXPECT_NE(std::string::npos, lines[1].find("processor time 300000 s")) << lines[1];
    EXPECT_EQ(lines[lines.size() - 2].find("us each"), lines.back().find("2000000000")) << lines.back();
    HandlerInfo old{};
    old.class_name = "Shop::Till";
    old.state = "open";
    old.age_ms = 700000000;
    TextRoom out;
    write_handlers({old}, out);
    EXPECT_EQ(0u, linesOf(out.text())[1].find("700000 ")) << out.text();
}

TEST(MadeTexts, TheTextNamesWorkersThatAreInACallAndNoOthers) {
    Snapshot snapshot;
    WorkerStats idle{};
    idle.thread_id = 41;
    idle.call = "";
    WorkerStats busy{};
    busy.thread_id = 42;
    busy.pool = 3;
    busy.handler = -6553600;
    busy.call = "handle_output";
    snapshot.workers = {idle, busy, idle};
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("thread 42 of pool 3 is in handle_output of handler -6553600", lines[1]);
}

TEST(MadeTexts, TheTextHasAlarmsThatLastOrHaveJustEndedAndNoOlderOnes) {
    Snapshot snapshot;
    snapshot.process.taken_us = 100000000;
    AlarmStats alarm{};
    alarm.kind = AlarmKind::POOL_FULL;
    alarm.lasts = 1;
    alarm.since_us = 96750000;
    alarm.times = 2;
    std::strcpy(alarm.text, "pool 0 is full: 3 sockets are left out");
    snapshot.alarms.push_back(alarm);
    alarm.lasts = 0;
    alarm.ended_us = 90000001;
    std::strcpy(alarm.text, "pool 1 was full");
    snapshot.alarms.push_back(alarm);
    alarm.ended_us = 90000000;
    std::strcpy(alarm.text, "pool 2 was full");
    snapshot.alarms.push_back(alarm);
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("alarm: pool 0 is full: 3 sockets are left out; it began 3.2 s ago, times so far: 2", lines[1]);
    EXPECT_EQ(0u, lines[2].find("alarm: pool 1 was full; it began "));
}

TEST(MadeTexts, TheClassesStandInColumnsAlsoAfterALongName) {
    Snapshot snapshot;
    const std::string long_name(70, 'n');
    HandlerClassStats row{};
    row.name = "Shop::Till";
    row.live = 1;
    row.opened = 22;
    row.closed = 333;
    row.calls = 4444;
    row.timed = 4;
    row.time_ns = 10000;
    snapshot.classes.push_back(row);
    row.name = long_name.c_str();
    row.timed = 0;  // nobody has measured
    snapshot.classes.push_back(row);
    const std::vector<std::string> lines = linesOf(textOf(snapshot, &write_text));
    ASSERT_EQ(4u, lines.size());
    const std::string& head = lines[1];
    const std::string& line = lines[2];
    EXPECT_EQ(head.find("live"), line.find("1 "));
    EXPECT_EQ(head.find("opened"), line.find("22"));
    EXPECT_EQ(head.find("closed"), line.find("333"));
    EXPECT_EQ(head.find("calls"), line.find("4444"));
    EXPECT_EQ(head.find("us each"), line.find("2.5"));
    EXPECT_EQ(long_name + " 1 22 333       4444", lines[3]) << "a blank, and columns where there is room";
}

TEST(MadeTexts, TheListOfHandlersHasALineForEach) {
    HandlerInfo one{};
    one.class_name = "Shop::Till";
    one.state = "open";
    one.id = -6553600;
    one.pool = 3;
    one.age_ms = 12345;
    one.references = 2;
    one.sockets = 1;
    one.timers = 7;
    HandlerInfo made{};
    made.class_name = "not called yet";
    made.state = "closing";
    made.pool = -1;
    TextRoom out;
    write_handlers({one, made}, out);
    const std::vector<std::string> lines = linesOf(out.text());
    ASSERT_EQ(3u, lines.size());
    const std::string& head = lines[0];
    const auto cell = [&](const std::string& line, const char* column, const char* next) {
        const std::string text = line.substr(head.find(column), head.find(next) - head.find(column));
        return text.substr(0, text.find_last_not_of(' ') + 1);
    };
    EXPECT_EQ("12.345", cell(lines[1], "age_s", "pool"));
    EXPECT_EQ("3", cell(lines[1], "pool", "id"));
    EXPECT_EQ("-6553600", cell(lines[1], "id", "state"));
    EXPECT_EQ("open", cell(lines[1], "state", "refs"));
    EXPECT_EQ("2", cell(lines[1], "refs", "socks"));
    EXPECT_EQ("1", cell(lines[1], "socks", "timers"));
    EXPECT_EQ("7", cell(lines[1], "timers", "class"));
    EXPECT_EQ("Shop::Till", lines[1].substr(head.find("class")));
    EXPECT_EQ("0", cell(lines[2], "age_s", "pool"));
    EXPECT_EQ("-1", cell(lines[2], "pool", "id"));
    EXPECT_EQ("not called yet", lines[2].substr(head.find("class")));
}

}  // namespace
}  // namespace Orvex::Testing
