// HolderNotes: where references on one handler were taken and given back.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Orvex::Reticor {

/// Counts by return address. It belongs to the handler, and to readers that look at it after they have left
/// the list of handlers: the last one to give it up frees it.
///
/// Thread safety: any thread. No locks; of one moment is only each count by itself.
class HolderNotes {
public:
    /// Places with counts of their own; what comes from further ones is counted together, under address 0.
    static constexpr size_t PLACES = 16;

    struct Place {
        std::atomic<uintptr_t> address{0};
        std::atomic<uint64_t> taken{0};
        std::atomic<uint64_t> given_back{0};
    };

    /// Whether handlers get notes from now on.
    static void Switch(bool on) { sm_on.store(on, std::memory_order_relaxed); }

    /// Those of a new handler. Null while that is off, or without memory.
    static HolderNotes* Create() {
        return __builtin_expect(sm_on.load(std::memory_order_relaxed), 0) ? make() : nullptr;
    }

    HolderNotes(const HolderNotes&) = delete;
    HolderNotes& operator=(const HolderNotes&) = delete;

    void Hold() { m_owners.fetch_add(1, std::memory_order_relaxed); }
    void Drop();

    /// `address`: where the operation returns to.
    void NoteTaken(const void* address) { place_of(address).taken.fetch_add(1, std::memory_order_relaxed); }
    void NoteGivenBack(const void* address) {
        place_of(address).given_back.fetch_add(1, std::memory_order_relaxed);
    }

    /// Calls `visit(uintptr_t address, uint64_t taken, uint64_t given_back)` for each place with counts.
    template <class Visitor>
    void ForEach(Visitor visit) const {
        for (const Place& place : m_places) {
            const uint64_t given_back = place.given_back.load(std::memory_order_relaxed);
            const uint64_t taken = place.taken.load(std::memory_order_relaxed);
            if (taken + given_back != 0) {
                visit(place.address.load(std::memory_order_relaxed), taken, given_back);
            }
        }
    }

private:
    HolderNotes() = default;
    ~HolderNotes() = default;

    static HolderNotes* make();
    Place& place_of(const void* address);

    static std::atomic<bool> sm_on;

    Place m_places[PLACES + 1];  ///< The last one is for all others.
    std::atomic<uint32_t> m_owners{1};
};

/// Holds notes while they are read, or nothing.
class HolderNotesPin {
public:
    HolderNotesPin() = default;
    explicit HolderNotesPin(HolderNotes* notes) : m_notes(notes) {
        if (m_notes != nullptr) {
            m_notes->Hold();
        }
    }
    ~HolderNotesPin() {
        if (m_notes != nullptr) {
            m_notes->Drop();
        }
    }
    HolderNotesPin(const HolderNotesPin& other) : HolderNotesPin(other.m_notes) {}
    HolderNotesPin(HolderNotesPin&& other) noexcept : m_notes(std::exchange(other.m_notes, nullptr)) {}
    HolderNotesPin& operator=(HolderNotesPin other) noexcept {
        std::swap(m_notes, other.m_notes);
        return *this;
    }

    const HolderNotes* get() const { return m_notes; }

private:
    HolderNotes* m_notes = nullptr;
};

}  // namespace Orvex::Reticor
