// TProgress: progress reporting and cancellation between the library and its host.
//
// Progress is a stack of stages. Each stage is a share of the stage below it (its fraction),
// a number of steps (its total) and the steps done (its count). The host's callback receives
// the overall progress in thousandths, 0 to 1000, and cancels the running operation by
// returning false. The library calls only prog(); the host brackets library calls with
// start() and end() to give each its share of a longer task.
#pragma once

#include <vector>

#include "kestrix1/frame/export.h"

class KESTRIX1_EXPORT TProgress {
public:
    // Host callback: thousandths done (0..1000) and the user pointer; false cancels.
    using Callback = bool (*)(int, void *);

    // One stage: fraction 1.0, total 100, count 0. The callback is never called while the
    // user pointer is null.
    explicit TProgress(Callback callback = nullptr, void *user = nullptr);

    // Opens a stage taking `fraction` of the current one: total 100, count 0. No call.
    void start(float fraction);

    // One more step of the top stage, then reports. Returns the host's answer.
    bool prog();

    // Sets the top stage to count of total steps, then reports.
    bool prog(int count, int total);

    // Closes the top stage: the stage below advances by its total times the closed stage's
    // fraction (truncated), then reports. True without reporting when no stage is open.
    bool end();

    // Back to a single stage, completed: reports 1000 whatever stages were open.
    void done();

    // Back to a single stage at 0, without reporting.
    void reset();

    Callback m_callback_p;
    void *m_user_p;
    std::vector<float> m_fractions;  // per stage: share of the stage below
    std::vector<int> m_totals;       // per stage: number of steps
    std::vector<int> m_counts;       // per stage: steps done

protected:
    // Reports the overall progress: sum over stages of (product of fractions up to the
    // stage) x count / total, in single precision, as truncated thousandths capped at 1000.
    // A top count above its total first stretches the total to trunc((count + 1) x 1.2).
    bool progress();

private:
    void restart();
};
