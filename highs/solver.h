// solver.h: Solver, one HiGHS instance, and the thread it runs on. No Python in it.
//
//   auto solver = std::make_shared<Solver>();
//   solver->load(model);                      the engine copies the arrays
//   solver->start(true, HUGE_VAL);            HiGHS works on a thread of its own; only the calls marked (*) may come in
//   while (!solver->wait(0.05)) ...           progress(), take_log(), interrupt()
//   solver->return_status();                  its results are read through highs()
//
// The thread holds a reference to its solver: whoever lets go of a running solver need not wait for it, the thread
// frees it at the end. A fresh thread for every run also gives every run its own task scheduler in HiGHS, which belongs
// to the thread that starts it: so the number of threads may differ from run to run (a scheduler that lives refuses
// another number).
#pragma once

#include "handover.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace tarvopy::highs {

struct Progress {
    double seconds = 0;
    double iterations = 0;
    double nodes = -1; // -1: no tree search
    double incumbent = kNone, bound = kNone;
    static constexpr double kNone = HUGE_VAL;
};

class Solver : public std::enable_shared_from_this<Solver> {
  public:
    Solver();
    ~Solver();
    Solver(const Solver &) = delete;
    Solver &operator=(const Solver &) = delete;

    void *highs() const { return highs_; }
    bool running() const { return running_.load(std::memory_order_acquire); } // (*)
    void set_house_defaults(); // needed again whenever HiGHS' options were reset
    HighsInt load(const ModelArrays &model);

    // A tree search ends at its next check beyond so many LP iterations; HiGHS' own limit stands for one LP.
    void start(bool keep_log, double tree_iterations);
    bool wait(double seconds);              // (*) true once the run is over
    Progress progress();                    // (*)
    std::string take_log();                 // (*) what the engine said since the last call
    void interrupt() { interrupt_ = true; } // (*) obeyed at the engine's next check
    void stop_logging();                    // (*) nobody will read it

    // Of the last run: HiGHS' return status, and what an exception said that got out of it ("" if none did).
    HighsInt return_status() const { return return_status_; }
    const std::string &failure() const { return failure_; }

  private:
    void work();
    static void callback(int type, const char *message, const HighsCallbackDataOut *out, HighsCallbackDataIn *in,
                         void *user);
    void note(int type, const HighsCallbackDataOut &out);

    void *highs_;
    std::mutex mutex_;
    std::condition_variable over_;
    std::atomic<bool> running_ = false;
    std::atomic<bool> interrupt_ = false;
    bool keep_log_ = false;
    double tree_iterations_ = HUGE_VAL;
    std::chrono::steady_clock::time_point began_;
    Progress progress_;
    std::string log_;
    HighsInt return_status_ = kHighsStatusOk;
    std::string failure_;
};

} // namespace tarvopy::highs
