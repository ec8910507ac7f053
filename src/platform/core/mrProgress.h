#pragma once

#include <cstdint>
#include <functional>

// How far long work has got, for a caller that shows it. The caller installs a callback
// for the duration of a stage; the work inside reports what it has done with reach() or
// step(). Without a stage (or with an empty callback) those calls only test one
// thread-local pointer, and no result ever depends on whether anyone listens.
//
// The callback hears (stage, 0, total) when a stage starts, (stage, n, n) with n >= 1 when
// it ends, and between the two at most about a thousand reports with `done` rising. A
// stage whose amount of work is not known beforehand has total 0: its reports count what
// is done so far (each at least 1% more than the one before), and its end gives the
// final count. Only the thread that opened the stage reports into it.
class mrProgress
{
public:
    typedef std::function<void(const char* stage, uint64_t done, uint64_t total)> Callback;

    // A stage of work, reported while the object lives. `total` is the work expected
    // (reports beyond it are held at it), or 0 when it is not known.
    class Stage
    {
    public:
        Stage(const Callback& callback, const char* name, uint64_t total);
        ~Stage();
        Stage(const Stage&) = delete;
        Stage& operator=(const Stage&) = delete;

    private:
        friend class mrProgress;
        void report(uint64_t done);

        Callback m_callback; // a copy: the caller's may be a temporary
        const char* m_name;
        uint64_t m_total;
        uint64_t m_done = 0;
        uint64_t m_next = 0; // the report after the last one heard comes at this much done
        Stage* m_outer;
    };

    // From inside long work: this much of the current stage is done.
    static void reach(uint64_t done)
    {
        if (s_stage)
            s_stage->report(done);
    }
    // One more unit of the current stage is done.
    static void step()
    {
        if (s_stage)
            s_stage->report(s_stage->m_done + 1);
    }

private:
    static thread_local Stage* s_stage;
};
