// StatsTexts: a snapshot as text, as JSON, and in the exposition format of metrics.
#pragma once

#include <vector>

#include <Reticor/MediaVerdicts.h>
#include <Reticor/Stats.h>

#include "Core/stats/Snapshot.h"
#include "Core/stats/TextRoom.h"

namespace Orvex::Reticor {

/// Senders of media that the text and the metrics have: those that suffer most.
constexpr size_t MOST_SENDERS = 20;

/// Byte-stream senders, files, receivers and ticks that the text has.
constexpr size_t MOST_OBJECTS = 20;

/// For people: pools, workers in calls, senders of media, classes by their calls.
void write_text(const Snapshot& snapshot, TextRoom& out);

/// One object on one line. Ids are strings, since readers keep numbers of 53 bits.
void write_json(const Snapshot& snapshot, TextRoom& out);

/// Every family of series once, with its help and its type.
void write_metrics(const Snapshot& snapshot, TextRoom& out);

/// A line for each handler.
void write_handlers(const std::vector<HandlerInfo>& handlers, TextRoom& out);

/// A figure of a pool, by which all three texts go.
struct PoolFigure {
    const char* name;  ///< Of the field, and of the series, less "reticor_pool_" and "_total".
    const char* help;
    bool counter;  ///< Rises; others are of the moment.
    uint64_t PoolStats::*value;
};
extern const PoolFigure POOL_FIGURES[];
extern const size_t POOL_FIGURE_COUNT;

/// Pieces and bytes of a kind of memory, of all its sizes.
struct MemorySum {
    const char* kind;
    uint64_t pieces;
    uint64_t bytes;
};
/// Each kind once, in the order in which they come.
std::vector<MemorySum> sums_of_memory(const std::vector<MemoryStats>& rows);

/// Why clients did not get frames, for JSON and metrics.
struct DropName {
    const char* name;
    MediaDrops SenderVerdict::*drops;
};
constexpr DropName DROP_NAMES[] = {
    {"too_old", &SenderVerdict::too_old},   {"stepped", &SenderVerdict::stepped},
    {"no_key", &SenderVerdict::no_key},     {"not_chosen", &SenderVerdict::not_chosen},
    {"filtered", &SenderVerdict::filtered}, {"disposable", &SenderVerdict::disposable},
};

}  // namespace Orvex::Reticor
