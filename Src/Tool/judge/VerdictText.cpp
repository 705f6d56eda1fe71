// VerdictText: sentences of whole numbers, since those of floating point depend on the locale.
#include "Tool/judge/VerdictText.h"

#include <cstdarg>
#include <cstdio>

namespace Orvex::Reticor {

namespace {

/// Below this share of them says nothing: one of nine is chance.
constexpr uint32_t FEWEST_SEGMENTS = 20;
constexpr uint64_t NEVER = ~uint64_t{0};

/// A figure with one digit after the point, and its unit.
class Figure {
public:
    /// "1.2 of 4.0 Mbit/s", in the unit of the larger one.
    static Figure rates(uint64_t part, uint64_t whole) {
        const uint64_t larger = part > whole ? part : whole;
        const bool mega = larger >= 1000000;
        const uint64_t unit = mega ? 1000000 : 1000;
        Figure made;
        const uint64_t first = tenths(part, unit);
        const uint64_t second = tenths(whole, unit);
        std::snprintf(made.m_text, sizeof made.m_text, "%ju.%ju of %ju.%ju %s", digits(first), digit(first),
                      digits(second), digit(second), mega ? "Mbit/s" : "kbit/s");
        return made;
    }
    static Figure bytes(uint64_t bytes) {
        const bool mega = bytes >= 1000000;
        const uint64_t figure = tenths(bytes, mega ? 1000000 : 1000);
        Figure made;
        std::snprintf(made.m_text, sizeof made.m_text, "%ju.%ju %s", digits(figure), digit(figure),
                      mega ? "MB" : "KB");
        return made;
    }
    static Figure seconds(uint64_t us) {
        const uint64_t figure = tenths(us, 1000000);
        Figure made;
        std::snprintf(made.m_text, sizeof made.m_text, "%ju.%ju s", digits(figure), digit(figure));
        return made;
    }
    const char* text() const { return m_text; }

private:
    static uint64_t tenths(uint64_t value, uint64_t unit) { return (value + unit / 20) / (unit / 10); }
    static uintmax_t digits(uint64_t tenths) { return tenths / 10; }
    static uintmax_t digit(uint64_t tenths) { return tenths % 10; }

    char m_text[64] = {};
};

/// To the end of the sentence.
class Sentence {
public:
    explicit Sentence(SenderVerdict& verdict) : m_verdict(verdict) { m_verdict.sentence[0] = '\0'; }

    __attribute__((format(printf, 2, 3))) Sentence& add(const char* format, ...) {
        const size_t left = sizeof m_verdict.sentence - m_length;
        va_list values;
        va_start(values, format);
        const int wanted = std::vsnprintf(m_verdict.sentence + m_length, left, format, values);
        va_end(values);
        m_length += wanted > 0 && static_cast<size_t>(wanted) < left ? static_cast<size_t>(wanted) : 0;
        return *this;
    }

private:
    SenderVerdict& m_verdict;
    size_t m_length = 0;
};

int weight(SenderVerdictKind kind) {
    switch (kind) {
        case SenderVerdictKind::SILENT:
        case SenderVerdictKind::STALLED:
            return 2;
        case SenderVerdictKind::SLOW_READER:
        case SenderVerdictKind::NETWORK:
        case SenderVerdictKind::BURST:
        case SenderVerdictKind::BOTH:
            return 1;
        default:
            return 0;
    }
}

void write_network(const SenderVerdict& verdict, Sentence& sentence) {
    sentence.add("network: carries %s", Figure::rates(verdict.taken_rate, verdict.stream_rate).text());
    if (verdict.segments >= FEWEST_SEGMENTS) {
        const uint64_t percent = uint64_t{verdict.retransmitted} * 100 / verdict.segments;
        sentence.add(", %ju %% retransmitted", static_cast<uintmax_t>(percent));
    }
    sentence.add(", rtt %u ms", (verdict.rtt_us + 500) / 1000);
}

void write_both(const SenderVerdict& verdict, Sentence& sentence) {
    const Figure rates = Figure::rates(verdict.taken_rate, verdict.stream_rate);
    if (verdict.is_tcp == 0) {
        sentence.add("takes %s: its socket is full", rates.text());
        return;
    }
    sentence.add(
        "takes %s: its receive window was closed %u %% of the time, and the network is slow, rtt %u ms",
        rates.text(), verdict.closed_percent, (verdict.rtt_us + 500) / 1000);
}

}  // namespace

const char* VerdictText::name(SenderVerdictKind kind) {
    switch (kind) {
        case SenderVerdictKind::WAITING:
            return "waiting";
        case SenderVerdictKind::KEEPS_UP:
            return "keeps_up";
        case SenderVerdictKind::SLOW_READER:
            return "slow_reader";
        case SenderVerdictKind::NETWORK:
            return "network";
        case SenderVerdictKind::BURST:
            return "burst";
        case SenderVerdictKind::BOTH:
            return "both";
        case SenderVerdictKind::STALLED:
            return "stalled";
        case SenderVerdictKind::SILENT:
            return "silent";
        default:
            return "unknown";
    }
}

bool VerdictText::suffers_more(const SenderVerdict& a, const SenderVerdict& b) {
    const int first = weight(a.kind);
    const int second = weight(b.kind);
    if (first != second) {
        return first > second;
    }
    return a.lag_us != b.lag_us ? a.lag_us > b.lag_us : a.sender > b.sender;
}

void VerdictText::write(SenderVerdict& verdict) {
    Sentence sentence(verdict);
    switch (verdict.kind) {
        case SenderVerdictKind::WAITING:
            sentence.add("waits for a frame to begin with");
            break;
        case SenderVerdictKind::KEEPS_UP:
            sentence.add("keeps up");
            break;
        case SenderVerdictKind::SLOW_READER:
            sentence.add("reads %s: its receive window was closed %u %% of the time",
                         Figure::rates(verdict.taken_rate, verdict.stream_rate).text(),
                         verdict.closed_percent);
            break;
        case SenderVerdictKind::NETWORK:
            write_network(verdict, sentence);
            break;
        case SenderVerdictKind::BURST:
            sentence.add("the producer's burst of %s in %ju ms", Figure::bytes(verdict.burst_bytes).text(),
                         static_cast<uintmax_t>((verdict.burst_us + 999) / 1000));
            break;
        case SenderVerdictKind::BOTH:
            write_both(verdict, sentence);
            break;
        case SenderVerdictKind::STALLED:
            sentence.add("stalled for %s", Figure::seconds(verdict.quiet_us).text());
            if (verdict.left_us == 0) {
                sentence.add(verdict.listed != 0 ? ": its time is over" : ": hung up on");
            } else if (verdict.left_us != NEVER) {
                sentence.add(": hung up on in %s", Figure::seconds(verdict.left_us).text());
            }
            break;
        case SenderVerdictKind::SILENT:
            sentence.add("silent for %s: nothing acknowledged, %u segments under way",
                         Figure::seconds(verdict.quiet_us).text(), verdict.unacked);
            break;
        default:
            sentence.add("not known yet");
            break;
    }
}

}  // namespace Orvex::Reticor
