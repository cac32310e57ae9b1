#include "solver.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

namespace tarvopy::highs {

namespace {

// The checks at which HiGHS looks whether it should stop. They also carry the figures of the progress line.
constexpr HighsInt interrupting_callbacks[] = {kHighsCallbackSimplexInterrupt, kHighsCallbackIpmInterrupt,
                                               kHighsCallbackMipInterrupt};

// Threads on which HiGHS may still be at work, counted to their very end.
std::atomic<int> threads_at_work{0};

struct AtWork {
    AtWork() { ++threads_at_work; }
    AtWork(const AtWork &) { ++threads_at_work; }
    ~AtWork() { --threads_at_work; }
};

// The process ends while an engine does not come back: the C library would now destroy the static objects that it works
// with, which is a crash. The interpreter has finished by then, so the process may go as it stands.
void leave_without_destructors(int status, void *) {
    if (threads_at_work.load() == 0)
        return;
    std::fflush(nullptr);
    _exit(status);
}

// Handlers run in the reverse order of their registration, so this one comes before those of libraries loaded before
// the first run.
void guard_exit() {
    static std::once_flag once;
    std::call_once(once, [] { on_exit(leave_without_destructors, nullptr); });
}

} // namespace

Solver::Solver() : highs_(library().create()) {
    if (!highs_)
        throw std::bad_alloc();
    set_house_defaults();
    library().setCallback(highs_, &Solver::callback, this);
    for (HighsInt type : interrupting_callbacks)
        library().startCallback(highs_, type);
}

void Solver::set_house_defaults() {
    library().setBoolOptionValue(highs_, "output_flag", 0);
    library().setBoolOptionValue(highs_, "log_to_console", 0); // the callback gets the text whatever this says
    // By default HiGHS drops coefficients up to 1e-9; a model is solved as it stands, down to the least that HiGHS
    // allows here.
    library().setDoubleOptionValue(highs_, "small_matrix_value", 1e-12);
}

Solver::~Solver() {
    library().destroy(highs_);
}

HighsInt Solver::load(const ModelArrays &model) {
    return hand_over(highs_, model);
}

void Solver::start(bool keep_log, double tree_iterations) {
    keep_log_ = keep_log;
    tree_iterations_ = tree_iterations;
    log_.clear();
    failure_.clear();
    progress_ = Progress{};
    began_ = std::chrono::steady_clock::now();
    interrupt_ = false;
    if (keep_log)
        library().startCallback(highs_, kHighsCallbackLogging);
    else
        library().stopCallback(highs_, kHighsCallbackLogging);
    library().setBoolOptionValue(highs_, "output_flag", keep_log);
    running_.store(true, std::memory_order_release);
    try {
        guard_exit();
        std::thread([at_work = AtWork(), self = shared_from_this()] { self->work(); }).detach();
    } catch (...) {
        running_.store(false, std::memory_order_release);
        throw;
    }
}

void Solver::work() {
    std::string failure;
    HighsInt status = kHighsStatusError;
    try {
        library().zeroAllClocks(highs_); // HiGHS compares its time limit with a clock that adds up over runs
        status = library().run(highs_);
    } catch (const std::exception &error) {
        failure = error.what();
    } catch (...) {
        failure = "an exception of unknown type";
    }
    library().resetGlobalScheduler(1); // joins the helper threads that this run made
    std::lock_guard lock(mutex_);
    return_status_ = status;
    failure_ = std::move(failure);
    running_.store(false, std::memory_order_release);
    over_.notify_all();
}

bool Solver::wait(double seconds) {
    std::unique_lock lock(mutex_);
    return over_.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return !running(); });
}

Progress Solver::progress() {
    std::lock_guard lock(mutex_);
    // Our own clock: HiGHS tells the time in some callbacks only, and this one goes on between them.
    progress_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
    return progress_;
}

std::string Solver::take_log() {
    std::lock_guard lock(mutex_);
    return std::exchange(log_, std::string());
}

void Solver::stop_logging() {
    std::lock_guard lock(mutex_);
    keep_log_ = false;
    log_.clear();
}

void Solver::note(int type, const HighsCallbackDataOut &out) {
    if (type == kHighsCallbackMipInterrupt) {
        progress_.nodes = static_cast<double>(out.mip_node_count);
        progress_.iterations = static_cast<double>(out.mip_total_lp_iterations);
        progress_.incumbent = out.mip_primal_bound;
        progress_.bound = out.mip_dual_bound;
    } else if (progress_.nodes < 0) { // within a tree search the relaxations' own counts mean nothing
        // Each callback fills the count of its own method and leaves the other at -1.
        progress_.iterations = std::max<HighsInt>({0, out.simplex_iteration_count, out.ipm_iteration_count});
    }
}

// Comes in on the run's thread and on HiGHS' helpers.
void Solver::callback(int type, const char *message, const HighsCallbackDataOut *out, HighsCallbackDataIn *in,
                      void *user) {
    auto &self = *static_cast<Solver *>(user);
    if (type == kHighsCallbackLogging) {
        std::lock_guard lock(self.mutex_);
        if (self.keep_log_ && message)
            self.log_ += message;
        return;
    }
    if (in) // written every time: HiGHS keeps the flag, and an interrupted instance would stop every later run at once
        in->user_interrupt = self.interrupt_ || (type == kHighsCallbackMipInterrupt && out &&
                                                 out->mip_total_lp_iterations >= self.tree_iterations_);
    if (!out)
        return;
    std::lock_guard lock(self.mutex_);
    self.note(type, *out);
}

} // namespace tarvopy::highs
