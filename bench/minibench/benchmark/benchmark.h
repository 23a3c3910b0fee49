// minibench: the part of the Google Benchmark interface that qimra-bench
// uses, for targets where that library is not packaged (the static ARMv7
// build). Same names, same flags, same console and JSON output shape, so
// qimra-bench and the scripts that read its reports work with either.
//
// What it does not do: multi-threaded benchmarks, argument ranges, complexity
// fits, memory managers, PauseTiming/ResumeTiming, SkipWithError, custom
// statistics, random interleaving. The flags it knows are listed by --help.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace benchmark {

using IterationCount = int64_t;

enum TimeUnit { kNanosecond, kMicrosecond, kMillisecond, kSecond };

// What an aggregate measures: a time, or a ratio (the coefficient of
// variation) shown as a percentage.
enum StatisticUnit { kTime, kPercentage };

class Counter {
public:
    enum Flags {
        kDefaults = 0,
        kIsRate = 1,         // divided by the measured seconds
        kAvgIterations = 2,  // divided by the number of iterations
    };
    enum OneK { kIs1000 = 1000, kIs1024 = 1024 };

    Counter(double v = 0.0, Flags f = kDefaults, OneK k = kIs1000) : value(v), flags(f), oneK(k) {}
    operator double const&() const { return value; }
    operator double&() { return value; }

    double value;
    Flags flags;
    OneK oneK;
};
using UserCounters = std::map<std::string, Counter>;

namespace internal {
class Runner;
}

class State {
public:
    struct StateIterator;

    // The timer runs from begin() until the loop's last iteration ends.
    StateIterator begin();
    StateIterator end();

    // The iterations run: the whole count once the loop is over, 0 before.
    IterationCount iterations() const { return max_iterations - remaining_; }

    // With UseManualTime, the benchmark's own measure of one iteration.
    void SetIterationTime(double seconds) { manual_seconds_ += seconds; }
    void SetBytesProcessed(int64_t bytes) {
        counters["bytes_per_second"] = Counter(static_cast<double>(bytes), Counter::kIsRate, Counter::kIs1024);
    }

    UserCounters counters;
    const IterationCount max_iterations;

private:
    friend class internal::Runner;
    explicit State(IterationCount iterations) : max_iterations(iterations), remaining_(iterations) {}

    void StartKeepRunning();
    void FinishKeepRunning();

    IterationCount remaining_;
    bool started_ = false;
    bool finished_ = false;
    double real_start_ = 0.0;
    double cpu_start_ = 0.0;
    double real_seconds_ = 0.0;
    double cpu_seconds_ = 0.0;
    double manual_seconds_ = 0.0;
};

// The range-for loop keeps its count in the iterator, so an iteration costs
// one decrement and one compare; the State learns the end only once.
struct State::StateIterator {
    // A variable of this type (`for (auto _ : state)`) is meant to go unused.
    struct [[maybe_unused]] Value {};

    StateIterator() : cached_(0), parent_(nullptr) {}
    explicit StateIterator(State* state) : cached_(state->max_iterations), parent_(state) {}

    Value operator*() const { return Value(); }
    StateIterator& operator++() {
        --cached_;
        return *this;
    }
    bool operator!=(const StateIterator&) const {
        if (cached_ != 0) [[likely]]
            return true;
        parent_->FinishKeepRunning();
        return false;
    }

private:
    IterationCount cached_;
    State* parent_;
};

inline State::StateIterator State::begin() {
    StartKeepRunning();
    return StateIterator(this);
}
inline State::StateIterator State::end() { return StateIterator(); }

namespace internal {

class Benchmark {
public:
    enum class Timing { kCpu, kReal, kManual };

    Benchmark(std::string name, std::function<void(State&)> fn) : name_(std::move(name)), fn_(std::move(fn)) {}

    Benchmark* Unit(TimeUnit unit) {
        unit_ = unit;
        return this;
    }
    Benchmark* UseRealTime() {
        timing_ = Timing::kReal;
        return this;
    }
    Benchmark* UseManualTime() {
        timing_ = Timing::kManual;
        return this;
    }

    const std::string& name() const { return name_; }
    TimeUnit unit() const { return unit_; }
    Timing timing() const { return timing_; }
    void Run(State& state) const { fn_(state); }

private:
    std::string name_;
    std::function<void(State&)> fn_;
    TimeUnit unit_ = kNanosecond;
    Timing timing_ = Timing::kCpu;
};

Benchmark* RegisterBenchmarkInternal(const char* name, std::function<void(State&)> fn);

}  // namespace internal

template <class Fn>
internal::Benchmark* RegisterBenchmark(const char* name, Fn&& fn) {
    return internal::RegisterBenchmarkInternal(name, std::function<void(State&)>(std::forward<Fn>(fn)));
}

class BenchmarkReporter {
public:
    struct CacheInfo {
        std::string type;
        int level = 0;
        int64_t size = 0;
        int num_sharing = 0;
    };

    struct Context {
        std::string executable_name;
        int num_cpus = 0;
        double mhz_per_cpu = 0.0;
        bool cpu_scaling_enabled = false;
        std::vector<CacheInfo> caches;
        std::vector<double> load_avg;
        // Widest benchmark name to be shown, aggregate suffix included.
        size_t name_field_width = 10;
    };

    struct BenchmarkName {
        std::string function_name;
        std::string time_type;  // "real_time", "manual_time" or empty
        std::string str() const { return time_type.empty() ? function_name : function_name + "/" + time_type; }
    };

    struct Run {
        enum RunType { RT_Iteration, RT_Aggregate };

        // Name with the aggregate's suffix ("_median").
        std::string benchmark_name() const;
        // Per iteration, in time_unit; an aggregate holds its statistic
        // already per iteration, and a percentage aggregate a plain ratio.
        double GetAdjustedRealTime() const;
        double GetAdjustedCPUTime() const;

        BenchmarkName run_name;
        int64_t family_index = 0;
        int64_t per_family_instance_index = 0;
        RunType run_type = RT_Iteration;
        std::string aggregate_name;
        StatisticUnit aggregate_unit = kTime;
        bool error_occurred = false;
        std::string error_message;

        // Iterations of a run; for an aggregate, the repetitions it covers.
        IterationCount iterations = 1;
        int64_t threads = 1;
        int64_t repetition_index = 0;
        int64_t repetitions = 1;
        TimeUnit time_unit = kNanosecond;
        // Seconds over all iterations (an aggregate: its statistic).
        double real_accumulated_time = 0.0;
        double cpu_accumulated_time = 0.0;
        UserCounters counters;
    };

    BenchmarkReporter();
    virtual ~BenchmarkReporter() = default;

    virtual bool ReportContext(const Context& context) = 0;
    virtual void ReportRuns(const std::vector<Run>& runs) = 0;
    virtual void Finalize() {}

    void SetOutputStream(std::ostream* out) { output_stream_ = out; }
    void SetErrorStream(std::ostream* err) { error_stream_ = err; }
    std::ostream& GetOutputStream() const { return *output_stream_; }
    std::ostream& GetErrorStream() const { return *error_stream_; }

private:
    std::ostream* output_stream_;
    std::ostream* error_stream_;
};

class ConsoleReporter : public BenchmarkReporter {
public:
    enum OutputOptions {
        OO_None = 0,
        OO_Color = 1,
        OO_Tabular = 2,
        OO_ColorTabular = OO_Color | OO_Tabular,
        OO_Defaults = OO_ColorTabular
    };
    explicit ConsoleReporter(OutputOptions options = OO_Defaults) : output_options_(options) {}

    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

protected:
    virtual void PrintRunData(const Run& run);
    virtual void PrintHeader(const Run& run);

    OutputOptions output_options_;
    size_t name_field_width_ = 10;
    UserCounters prev_counters_;
    bool printed_header_ = false;
};

class JSONReporter : public BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    bool first_report_ = true;
};

// Takes the --benchmark_* flags out of argv (and counts them out of argc).
void Initialize(int* argc, char** argv);
// Reports what Initialize left besides argv[0]; true when there was any.
bool ReportUnrecognizedArguments(int argc, char** argv);
// Runs the benchmarks the filter selects; returns how many matched.
size_t RunSpecifiedBenchmarks();
size_t RunSpecifiedBenchmarks(BenchmarkReporter* display_reporter);
void Shutdown();

// Compiler barriers: the optimiser must assume that memory (or the value)
// is read and written here, so the measured work is not removed.
inline void ClobberMemory() { asm volatile("" : : : "memory"); }

template <class T>
inline void DoNotOptimize(T& value) {
    asm volatile("" : "+m"(value) : : "memory");
}
template <class T>
inline void DoNotOptimize(const T& value) {
    asm volatile("" : : "m"(value) : "memory");
}

}  // namespace benchmark
