// TargetStepMark: which threads are inside an operation of a media buffer.
#pragma once

namespace Orvex::Reticor {

/// Whoever waits for a thread to be out of all operations.
class StepGuest_IF {
public:
    /// Bears a mark while it runs, so that what it begins does not call other guests. May end the guest.
    virtual void come() = 0;

protected:
    friend class TargetStepMark;
    ~StepGuest_IF() = default;

    StepGuest_IF* m_next_guest = nullptr;
};

/// Marks the calling thread as working under the lock of a target, call-backs of the product included. The
/// list's lock of the shared timer is taken before the targets' locks, so such a thread must not come back to
/// the list; and it must not enter the lock of a buffer that it does not feed, since another thread may want
/// the two the other way.
class TargetStepMark {
public:
    /// Marks nest.
    static void enter() { ++of_thread().depth; }
    /// With the last mark the guests come.
    static void leave() {
        OfThread& mine = of_thread();
        if (--mine.depth == 0 && mine.guests != nullptr) {
            call_guests(mine);
        }
    }
    static bool inside() { return of_thread().depth != 0; }

    /// Asserts that the calling thread bears no mark.
    static void assert_none();

    /// The guest is called when the last mark of this thread has gone. It is in no other list.
    static void await(StepGuest_IF& guest);

private:
    struct OfThread {
        int depth;
        StepGuest_IF* guests;
    };

    static OfThread& of_thread();
    static void call_guests(OfThread& mine);
    static int depth() { return of_thread().depth; }
};

}  // namespace Orvex::Reticor
