#include "common/ranks.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <thread>

#include "common/error.h"

#ifdef EXAMPLES_WITH_MPI
#include <mpi.h>
#include <sys/prctl.h>

#include <cctype>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#endif

namespace common {

namespace {

constexpr std::chrono::seconds kEndOfJob{10};
[[maybe_unused]] constexpr std::chrono::milliseconds kTurn{400};
[[maybe_unused]] constexpr int kMostTurns = 3;

/// Processes that a launcher has started beside this one, itself included; 1 without a launcher.
int launched_processes() {
    for (const char* name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "SLURM_STEP_NUM_TASKS"}) {
        if (const char* text = std::getenv(name); text != nullptr) {
            return std::atoi(text);
        }
    }
    return 1;
}

}  // namespace

#ifdef EXAMPLES_WITH_MPI

namespace {

void check(int status, const char* what) {
    if (status == MPI_SUCCESS) {
        return;
    }
    char text[MPI_MAX_ERROR_STRING] = "";
    int length = 0;
    MPI_Error_string(status, text, &length);
    throw Error(std::string(what) + ": " + text);
}

/// Adds the lifetime of a scope to a number of seconds.
class Stopwatch {
public:
    explicit Stopwatch(double* seconds) : _seconds(seconds) {}
    ~Stopwatch() { *_seconds += std::chrono::duration<double>(Clock::now() - _start).count(); }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

private:
    using Clock = std::chrono::steady_clock;
    double* _seconds;
    Clock::time_point _start = Clock::now();
};

}  // namespace

struct Ranks::Impl {
    struct Sum {
        void* values;
        std::size_t count;
        MPI_Datatype type;
    };

    explicit Impl(double its_patience) : patience(its_patience) {
        int level = 0;
        MPI_Init_thread(nullptr, nullptr, MPI_THREAD_MULTIPLE, &level);
        if (level < MPI_THREAD_MULTIPLE) {
            throw Error("this MPI cannot be called by several threads");
        }
        MPI_Comm_set_errhandler(MPI_COMM_WORLD, MPI_ERRORS_RETURN);
        check(MPI_Comm_dup(MPI_COMM_WORLD, &for_sums), "MPI_Comm_dup");
        check(MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &local),
              "MPI_Comm_split_type");
        summing = std::thread([this] { sum_as_told(); });
    }

    ~Impl() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stop = true;
        }
        changed.notify_all();
        summing.join();
        MPI_Comm_free(&for_sums);
        MPI_Comm_free(&local);
        MPI_Finalize();
    }

    /// MPI's own way to wait would keep from its processor the thread that computes.
    void wait(MPI_Request request, const char* what) const {
        constexpr std::chrono::microseconds pause{20};
        prctl(PR_SET_TIMERSLACK, 1000);  // of this thread, so that the pause is no longer
        const auto start = std::chrono::steady_clock::now();
        for (int done = 0;;) {
            check(MPI_Test(&request, &done, MPI_STATUS_IGNORE), what);
            if (done != 0) {
                return;
            }
            const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
            if (waited.count() > patience) {
                throw Error("the other ranks have not answered for " +
                            std::to_string(static_cast<int>(patience)) + " seconds");
            }
            std::this_thread::sleep_for(pause);
        }
    }

    void all_reduce(const Sum& sum, MPI_Comm comm) const {
        MPI_Request request;
        check(MPI_Iallreduce(MPI_IN_PLACE, sum.values, static_cast<int>(sum.count), sum.type,
                             MPI_SUM, comm, &request),
              "MPI_Iallreduce");
        wait(request, "MPI_Iallreduce");
    }

    /// The thread that sums while another one computes.
    void sum_as_told() {
        std::unique_lock<std::mutex> lock(mutex);
        while (true) {
            changed.wait(lock, [this] { return stop || !sums.empty(); });
            if (sums.empty()) {
                return;
            }
            const Sum next = sums.front();
            lock.unlock();
            std::exception_ptr its_failure;
            try {
                all_reduce(next, for_sums);
            } catch (...) {
                its_failure = std::current_exception();
            }
            lock.lock();
            if (its_failure) {
                failure = its_failure;
                sums.clear();
            } else {
                sums.pop_front();
            }
            changed.notify_all();
        }
    }

    void start(void* values, std::size_t count, MPI_Datatype type) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (!failure) {
            sums.push_back({values, count, type});
        }
        changed.notify_all();
    }

    void finish() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return sums.empty(); });
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

    double patience;
    MPI_Comm for_sums = MPI_COMM_NULL, local = MPI_COMM_NULL;
    std::thread summing;
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by `mutex`.
    std::deque<Sum> sums;
    std::exception_ptr failure;
    bool stop = false;
};

Ranks::Ranks(double patience) {
    if (launched_processes() > 1) {
        _impl = std::make_unique<Impl>(patience);
        MPI_Comm_rank(MPI_COMM_WORLD, &_rank);
        MPI_Comm_size(MPI_COMM_WORLD, &_size);
    }
}

int Ranks::local_size() const {
    int size = 1;
    if (_impl) {
        MPI_Comm_size(_impl->local, &size);
    }
    return size;
}

void Ranks::sum(std::vector<double>* values) {
    if (_impl) {
        const Stopwatch watch(&_seconds_waited);
        _impl->all_reduce({values->data(), values->size(), MPI_DOUBLE}, MPI_COMM_WORLD);
    }
}

std::vector<double> Ranks::gather(double value) {
    std::vector<double> values(_size);
    values[_rank] = value;
    sum(&values);
    return values;
}

std::string Ranks::broadcast(const std::string& text) {
    if (!_impl) {
        return text;
    }
    std::vector<double> length = {is_first() ? static_cast<double>(text.size()) : 0};
    sum(&length);
    std::string result = text;
    result.resize(static_cast<std::size_t>(length[0]));
    MPI_Request request;
    check(MPI_Ibcast(result.data(), static_cast<int>(result.size()), MPI_CHAR, 0, MPI_COMM_WORLD,
                     &request),
          "MPI_Ibcast");
    _impl->wait(request, "MPI_Ibcast");
    return result;
}

void Ranks::start_sum(float* values, std::size_t count) {
    if (_impl) {
        _impl->start(values, count, MPI_FLOAT);
    }
}

void Ranks::start_sum(double* values, std::size_t count) {
    if (_impl) {
        _impl->start(values, count, MPI_DOUBLE);
    }
}

void Ranks::finish_sums() {
    if (_impl) {
        const Stopwatch watch(&_seconds_waited);
        _impl->finish();
    }
}

void Ranks::abort(const std::string& program, const std::string& text) {
    if (!_impl) {
        return;
    }
    // Some failures all ranks find at once: the first ends the others before they tell the same.
    std::this_thread::sleep_for(kTurn * std::min(_rank, kMostTurns));
    // One write, so that the lines of two ranks do not mix.
    std::string line =
        program + ": rank " + std::to_string(_rank) + " of " + std::to_string(_size) + ": " + text;
    const auto control = [](unsigned char c) { return std::iscntrl(c) != 0; };
    std::replace_if(line.begin(), line.end(), control, '?');
    std::cerr << line + '\n' << std::flush;
    MPI_Abort(MPI_COMM_WORLD, 2);
}

#else

struct Ranks::Impl {};

Ranks::Ranks(double) {
    if (launched_processes() > 1) {
        throw Error("was built without MPI and runs on one rank only");
    }
}

int Ranks::local_size() const {
    return 1;
}

void Ranks::sum(std::vector<double>*) {}

std::vector<double> Ranks::gather(double value) {
    return {value};
}

std::string Ranks::broadcast(const std::string& text) {
    return text;
}

void Ranks::start_sum(float*, std::size_t) {}

void Ranks::start_sum(double*, std::size_t) {}

void Ranks::finish_sums() {}

void Ranks::abort(const std::string&, const std::string&) {}

#endif

Ranks::~Ranks() = default;

void Ranks::together(const std::function<void()>& work) {
    std::optional<Error> own;
    try {
        work();
    } catch (const Error& error) {
        own = error;
    }
    const std::vector<double> failed = gather(own ? 1 : 0);
    const auto first = std::find(failed.begin(), failed.end(), 1);
    if (first == failed.end()) {
        return;
    }
    if (first - failed.begin() != _rank) {
        // That rank tells why, and ends this one.
        std::this_thread::sleep_for(kEndOfJob);
    }
    throw own ? *own : Error("another rank has failed");
}

}  // namespace common
