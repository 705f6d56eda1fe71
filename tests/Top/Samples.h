// Samples: what processes and relays say of themselves, as far as a test cares.
#pragma once

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "top/Look.h"
#include "top/Model.h"

namespace TopSamples {

using nlohmann::json;

constexpr uint64_t SECOND = 1000000;

inline json spread(uint64_t count = 0, uint64_t sum_ns = 0, uint64_t p99_ns = 0) {
    return {{"count", count}, {"sum_ns", sum_ns}, {"p50_ns", 0},
            {"p90_ns", 0},    {"p99_ns", p99_ns}, {"max_ns", p99_ns}};
}

/// A pool of two workers that has done nothing.
inline json pool(int index = 0) {
    return {{"pool", index},
            {"workers", 2},
            {"busy", 0},
            {"cpu_ns", 0},
            {"queue_length", 0},
            {"serial_length", 0},
            {"pushed", 0},
            {"calls", 0},
            {"socket_events", 0},
            {"messages", 0},
            {"serial_messages", 0},
            {"timers", 0},
            {"passes", 0},
            {"drains", 0},
            {"heartbeats", 0},
            {"reports", 0},
            {"strays", 0},
            {"rebuilds", 0},
            {"epoll_refused", 0},
            {"sockets", 0},
            {"sockets_without_place", 0},
            {"places_left_read", 4096},
            {"places_left_write", 4096},
            {"places_left_except", 4096},
            {"timers_armed", 0},
            {"wait", spread()},
            {"run", spread()}};
}

inline json worker(int thread, const std::string& handler, const std::string& call, uint64_t calls,
                   int pool = 0) {
    return {{"pool", pool},    {"thread", thread},   {"cpu_ns", 0}, {"calls", calls},
            {"served", calls}, {"handler", handler}, {"call", call}};
}

inline json handlers(const std::string& name, uint64_t calls, uint64_t timed = 0, uint64_t time_ns = 0,
                     uint64_t live = 1) {
    return {{"class", name},  {"live", live},   {"opened", live},    {"closed", 0},
            {"calls", calls}, {"timed", timed}, {"time_ns", time_ns}};
}

inline json sender(const std::string& id, const std::string& verdict, const std::string& why,
                   uint64_t lag_us) {
    return {{"sender", id},     {"buffer", 1},        {"verdict", verdict},  {"why", why},
            {"lag_us", lag_us}, {"lag_bytes", 5000},  {"lag_frames", 2},     {"unsent_bytes", 100},
            {"blocked_us", 0},  {"stream_rate", 400}, {"taken_rate", 300},   {"closed_percent", 0},
            {"rtt_us", 200},    {"hole_frames", 1},   {"skipped_frames", 2}, {"thinned_frames", 4}};
}

inline json alarm(const std::string& kind, bool lasts, uint64_t amount, const std::string& text) {
    return {{"alarm", kind}, {"pool", 0},    {"lasts", lasts},   {"since_us", 1}, {"ended_us", lasts ? 0 : 1},
            {"times", 1},    {"most_us", 0}, {"amount", amount}, {"text", text}};
}

/// A process with one pool and nothing else.
inline json process(uint64_t taken_us) {
    return {{"version", 1},
            {"taken_us", taken_us},
            {"timing", false},
            {"handlers", 2},
            {"timers_armed", 1},
            {"stuck", 0},
            {"stuck_ever", 0},
            {"timer_lateness", spread()},
            {"pools", json::array({pool()})},
            {"workers", json::array()},
            {"classes", json::array()},
            {"media_buffers", json::array()},
            {"media_senders", json::array()}};
}

inline json client(const std::string& address, const std::string& verdict, const std::string& why) {
    return {{"number", 7},         {"address", address},    {"verdict", verdict},  {"why", why},
            {"lag_ms", 1200},      {"backlog_bytes", 1000}, {"unsent_bytes", 500}, {"bytes_per_second", 1e5},
            {"dropped_frames", 3}, {"left_out_frames", 4},  {"frames", 90},        {"bytes", 900000}};
}

/// A relay with one client.
inline json relay() {
    return {
        {"clients", json::array({client("127.0.0.1:4711", "keeps_up", "keeps up")})},
        {"ended", json::array()},
        {"buffer", {{"frames", 3}, {"bytes", 60000}, {"expired_frames", 0}}},
        {"input",
         {{"kind", "test"}, {"live", "/live.mjpg"}, {"frames", 100}, {"bytes", 2000000}, {"ended", false}}},
        {"totals",
         {{"clients", 1}, {"stalled", 0}, {"refused", 0}, {"turned_away", 0}, {"max_clients", 100}}}};
}

inline top::Look read(const json& all, uint64_t now_us = 0) {
    top::Look look;
    std::string wrong;
    EXPECT_TRUE(look.read(all.dump(), now_us, wrong)) << wrong;
    return look;
}

/// The texts of a model's alarms, one below the other, those that are bad with a mark.
inline std::string alarms(const top::Model& model) {
    std::string text;
    for (const top::Alarm& alarm : model.alarms()) {
        text += (alarm.is_bad ? "! " : "- ") + alarm.text + "\n";
    }
    return text;
}

}  // namespace TopSamples
