#ifndef COMMON_RANKS_H_
#define COMMON_RANKS_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace common {

/// The processes of one job that `mpirun` has started, its ranks; one alone where it has not. At
/// most one Ranks lives in a process, and only once. Calls that combine what the ranks have are
/// made by all of them in the same order. Their sums are taken in an order that the number of ranks
/// fixes, and every rank gets the same bits.
///
/// A call that waits for the other ranks throws Error when it has waited longer than `patience`
/// seconds: a rank may hang where its end would have ended the job.
class Ranks {
public:
    /// Throws Error when a launcher has started more than one process and the program was built
    /// without MPI.
    explicit Ranks(double patience = 300);
    ~Ranks();
    Ranks(const Ranks&) = delete;
    Ranks& operator=(const Ranks&) = delete;

    int rank() const { return _rank; }
    int size() const { return _size; }
    /// Ranks on this machine.
    int local_size() const;
    bool is_first() const { return _rank == 0; }

    /// Each value becomes its sum over the ranks.
    void sum(std::vector<double>* values);
    /// What all ranks have, in the order of their numbers.
    std::vector<double> gather(double value);
    /// The first rank's text.
    std::string broadcast(const std::string& text);

    /// Begins to sum `count` values over the ranks in place, while the caller goes on; they are
    /// its own again after finish_sums(). A thread waits for the network.
    void start_sum(float* values, std::size_t count);
    void start_sum(double* values, std::size_t count);
    /// Waits for all sums that were started.
    void finish_sums();

    /// Seconds that the calls above have waited for other ranks.
    double seconds_waited() const { return _seconds_waited; }

    /// Runs `work`, which combines nothing, and throws Error on all ranks where it did on any. The
    /// lowest such rank throws first, and the others give it time to abort(): one line tells why.
    void together(const std::function<void()>& work);

    /// Ends the job on all ranks at once, with the text on standard error after the program's name
    /// and the number of this rank. Returns where this rank is alone.
    void abort(const std::string& program, const std::string& text);

private:
    struct Impl;
    int _rank = 0;
    int _size = 1;
    double _seconds_waited = 0;
    std::unique_ptr<Impl> _impl;  ///< where there are more ranks
};

}  // namespace common

#endif  // COMMON_RANKS_H_
