// minibench against what Google Benchmark users and our report scripts rely
// on: the statistics, the iteration growth, the flags, and reports that
// parse. Every timed benchmark here uses manual time with fixed values, so
// nothing depends on how fast the machine is.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"
#include "minibench_internal.h"

namespace {

namespace mb = benchmark::minibench;
using Report = benchmark::BenchmarkReporter::Run;

// A strict JSON reader, enough to prove a report well formed. It flattens
// the document into scalars by path ("benchmarks.3.name") and array lengths.
class FlatJson {
public:
    explicit FlatJson(std::string text) : s_(std::move(text)) {
        ok_ = value("");
        space();
        ok_ = ok_ && at_ == s_.size();
    }
    bool ok() const { return ok_; }
    bool has(const std::string& path) const { return scalars_.count(path) != 0; }
    std::string operator[](const std::string& path) const { return has(path) ? scalars_.at(path) : "<absent>"; }
    double number(const std::string& path) const { return std::strtod((*this)[path].c_str(), nullptr); }
    size_t length(const std::string& path) const { return lengths_.count(path) ? lengths_.at(path) : 0; }

private:
    void space() {
        while (at_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[at_]))) ++at_;
    }
    bool eat(char c) {
        space();
        return at_ < s_.size() && s_[at_] == c && ++at_;
    }
    bool value(const std::string& path) {
        space();
        const std::string prefix = path.empty() ? "" : path + ".";
        if (eat('{')) {
            if (eat('}')) return true;
            do {
                std::string key;
                if (!(space(), string(&key)) || !eat(':') || !value(prefix + key)) return false;
            } while (eat(','));
            return eat('}');
        }
        if (eat('[')) {
            size_t n = 0;
            if (!eat(']')) {
                do
                    if (!value(prefix + std::to_string(n++))) return false;
                while (eat(','));
                if (!eat(']')) return false;
            }
            lengths_[path] = n;
            return true;
        }
        std::string scalar;
        if (at_ < s_.size() && s_[at_] == '"' ? !string(&scalar) : !literal(&scalar)) return false;
        scalars_[path] = scalar;
        return true;
    }
    bool string(std::string* out) {
        if (at_ >= s_.size() || s_[at_] != '"') return false;
        for (++at_; at_ < s_.size() && s_[at_] != '"'; ++at_) {
            if (static_cast<unsigned char>(s_[at_]) < 0x20) return false;
            if (s_[at_] != '\\') {
                *out += s_[at_];
            } else if (++at_ < s_.size() && s_[at_] == 'u' && at_ + 4 < s_.size()) {
                *out += static_cast<char>(std::strtol(s_.substr(at_ + 1, 4).c_str(), nullptr, 16));
                at_ += 4;
            } else {
                const char* from = "\"\\/bfnrt";
                const char* to = "\"\\/\b\f\n\r\t";
                const char* p = at_ < s_.size() ? std::strchr(from, s_[at_]) : nullptr;
                if (p == nullptr || *p == '\0') return false;
                *out += to[p - from];
            }
        }
        return at_++ < s_.size();
    }
    // true, false, null, or -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?
    bool literal(std::string* out) {
        for (const char* word : {"true", "false", "null"})
            if (s_.compare(at_, std::strlen(word), word) == 0) {
                *out = word;
                at_ += std::strlen(word);
                return true;
            }
        const size_t start = at_;
        auto digits = [&] {
            const size_t from = at_;
            while (at_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[at_]))) ++at_;
            return at_ > from;
        };
        auto next_is = [&](const char* set) {
            return at_ < s_.size() && s_[at_] != '\0' && std::strchr(set, s_[at_]) && ++at_;
        };
        next_is("-");
        if (!next_is("0") && !digits()) return false;
        if (next_is(".") && !digits()) return false;
        if (next_is("eE") && (next_is("+-"), !digits())) return false;
        *out = s_.substr(start, at_ - start);
        return true;
    }

    std::string s_;
    size_t at_ = 0;
    bool ok_ = false;
    std::map<std::string, std::string> scalars_;
    std::map<std::string, size_t> lengths_;
};

TEST(BenchMiniJsonReader, RejectsWhatIsNotJson) {
    for (const char* bad : {"{\"a\": 1,}", "[1 2]", "\"open", "01", "1.", "{\"a\": nan}", "[1] x", "{\"a\":\"\\q\"}"})
        EXPECT_FALSE(FlatJson(bad).ok()) << bad;
    const FlatJson good("{\"a\": [1, -2.5e-3, true, {\"b\": \"q\\\"\\\\\\u0001\"}]}");
    ASSERT_TRUE(good.ok());
    EXPECT_EQ(good.length("a"), 4u);
    EXPECT_EQ(good["a.3.b"], "q\"\\\x01");
}

// ---------------------------------------------------------------------------
// Statistics and iteration growth

TEST(BenchMiniStatistics, MedianIsTheMiddleOfTheSortedValues) {
    EXPECT_EQ(mb::Median({7.0}), 7.0);
    EXPECT_EQ(mb::Median({5.0, 1.0, 3.0}), 3.0);
    EXPECT_EQ(mb::Median({4.0, 1.0, 3.0, 2.0}), 2.5);
    EXPECT_EQ(mb::Median({1.0, 100.0, 2.0, 3.0, 2.0}), 2.0);  // an outlier does not move it
}

TEST(BenchMiniStatistics, SpreadIsTheSampleStandardDeviation) {
    // Sum of squared deviations 32 over n - 1 = 7.
    EXPECT_DOUBLE_EQ(mb::StandardDeviation({2, 4, 4, 4, 5, 5, 7, 9}), std::sqrt(32.0 / 7.0));
    EXPECT_DOUBLE_EQ(mb::CoefficientOfVariation({2, 4}), std::sqrt(2.0) / 3.0);
    EXPECT_EQ(mb::StandardDeviation({3.0}), 0.0);
    EXPECT_EQ(mb::CoefficientOfVariation({0.0, 0.0}), 0.0);
}

Report repetition(double seconds_per_iteration, double x_copy, bool failed = false) {
    Report r;
    r.run_name = {"process/1280x720", "manual_time"};
    r.iterations = 10;
    r.repetitions = 4;
    r.time_unit = benchmark::kMillisecond;
    r.real_accumulated_time = 10 * seconds_per_iteration;
    r.cpu_accumulated_time = 5 * seconds_per_iteration;
    r.counters["x_copy"] = x_copy;
    r.counters["bytes_per_second"] =
        benchmark::Counter(1000.0, benchmark::Counter::kIsRate, benchmark::Counter::kIs1024);
    r.error_occurred = failed;
    return r;
}

TEST(BenchMiniStatistics, AggregatesArePerIterationAndLeaveFailedRepetitionsOut) {
    const std::vector<Report> aggregates = mb::ComputeAggregates(
        {repetition(0.001, 9.0), repetition(0.003, 1.0), repetition(0.100, 50.0, true), repetition(0.002, 2.0)});
    ASSERT_EQ(aggregates.size(), 4u);
    const char* names[] = {"mean", "median", "stddev", "cv"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(aggregates[i].run_type, Report::RT_Aggregate);
        EXPECT_EQ(aggregates[i].benchmark_name(), std::string("process/1280x720/manual_time_") + names[i]);
        EXPECT_EQ(aggregates[i].run_name.function_name, "process/1280x720");
        EXPECT_EQ(aggregates[i].iterations, 3);  // the repetitions aggregated
        EXPECT_EQ(aggregates[i].repetitions, 4);
    }
    // Per-iteration times 1, 3 and 2 ms.
    EXPECT_DOUBLE_EQ(aggregates[0].GetAdjustedRealTime(), 2.0);
    EXPECT_DOUBLE_EQ(aggregates[1].GetAdjustedRealTime(), 2.0);
    EXPECT_DOUBLE_EQ(aggregates[1].GetAdjustedCPUTime(), 1.0);
    EXPECT_DOUBLE_EQ(aggregates[2].GetAdjustedRealTime(), 1.0);
    EXPECT_EQ(aggregates[3].aggregate_unit, benchmark::kPercentage);
    EXPECT_DOUBLE_EQ(aggregates[3].GetAdjustedRealTime(), 0.5);  // a ratio, not milliseconds
    // Counters aggregate the same way and keep their kind.
    EXPECT_DOUBLE_EQ(aggregates[0].counters.at("x_copy").value, 4.0);
    EXPECT_DOUBLE_EQ(aggregates[1].counters.at("x_copy").value, 2.0);
    EXPECT_EQ(aggregates[1].counters.at("bytes_per_second").flags, benchmark::Counter::kIsRate);
    EXPECT_EQ(aggregates[1].counters.at("bytes_per_second").oneK, benchmark::Counter::kIs1024);

    EXPECT_TRUE(mb::ComputeAggregates({repetition(0.001, 1.0), repetition(0.001, 1.0, true)}).empty());
}

TEST(BenchMiniGrowth, TenfoldUntilPredictableThenAimsAtOnePointFourTimesTheMinimum) {
    EXPECT_EQ(mb::NextIterationCount(1, 1e-7, 0.5), 10);
    EXPECT_EQ(mb::NextIterationCount(10, 0.0, 0.5), 100);
    EXPECT_EQ(mb::NextIterationCount(1000, 0.05, 0.5), 10000);  // exactly a tenth: still too short
    EXPECT_EQ(mb::NextIterationCount(100, 0.1, 0.5), 700);
    EXPECT_EQ(mb::NextIterationCount(10, 0.49, 0.5), 14);
    EXPECT_EQ(mb::NextIterationCount(10, 2.0, 0.5), 11);  // always at least one more
    EXPECT_EQ(mb::NextIterationCount(500000000, 1e-3, 1.0), mb::kMaxIterations);
}

// ---------------------------------------------------------------------------
// Flags

class BenchMiniFlags : public ::testing::Test {
protected:
    void SetUp() override { mb::flags() = mb::Flags(); }
    void TearDown() override { mb::flags() = mb::Flags(); }
};

TEST_F(BenchMiniFlags, InitializeTakesOutItsOwnAndLeavesTheRest) {
    std::vector<std::string> words = {"prog",
                                      "--benchmark_min_time=0.2s",
                                      "--media-dir=/data/local/tmp",
                                      "--benchmark_repetitions=5",
                                      "--benchmark_report_aggregates_only=true",
                                      "--benchmark_filterx=copy",
                                      "--benchmark_out=report.json"};
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    benchmark::Initialize(&argc, argv.data());
    ASSERT_EQ(argc, 3);
    EXPECT_STREQ(argv[1], "--media-dir=/data/local/tmp");
    EXPECT_STREQ(argv[2], "--benchmark_filterx=copy");
    EXPECT_EQ(argv[3], nullptr);
    EXPECT_DOUBLE_EQ(mb::flags().min_time, 0.2);
    EXPECT_EQ(mb::flags().repetitions, 5);
    EXPECT_TRUE(mb::flags().report_aggregates_only);
    EXPECT_EQ(mb::flags().filter, ".");
    EXPECT_EQ(mb::flags().out, "report.json");
}

TEST_F(BenchMiniFlags, ValuesParseOrAreLeftUnrecognized) {
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_min_time=100x"));
    EXPECT_EQ(mb::flags().fixed_iterations, 100);
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_min_time=0.05"));
    EXPECT_EQ(mb::flags().fixed_iterations, 0);
    EXPECT_DOUBLE_EQ(mb::flags().min_time, 0.05);
    for (const char* bad : {"--benchmark_min_time=fast", "--benchmark_min_time=-1", "--benchmark_min_time=0x",
                            "--benchmark_repetitions=0", "--benchmark_repetitions=3.5", "--benchmark_format=csv",
                            "--benchmark_list_tests=maybe", "--benchmark_out=", "benchmark_filter=a"})
        EXPECT_FALSE(mb::ApplyFlag(bad)) << bad;
    EXPECT_DOUBLE_EQ(mb::flags().min_time, 0.05);
    EXPECT_EQ(mb::flags().repetitions, 1);
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_display_aggregates_only"));
    EXPECT_TRUE(mb::flags().display_aggregates_only);
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_display_aggregates_only=false"));
    EXPECT_FALSE(mb::flags().display_aggregates_only);
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_out_format=console"));
    EXPECT_TRUE(mb::flags().out.empty());
}

// ---------------------------------------------------------------------------
// Whole runs through RunSpecifiedBenchmarks

// Keeps every run it is given.
class Collector : public benchmark::BenchmarkReporter {
public:
    Collector() {
        SetOutputStream(&out);
        SetErrorStream(&out);
    }
    bool ReportContext(const Context& c) override {
        context = c;
        return true;
    }
    void ReportRuns(const std::vector<Report>& r) override { runs.insert(runs.end(), r.begin(), r.end()); }

    Context context;
    std::vector<Report> runs;
    std::ostringstream out;
};

class BenchMiniRun : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        mb::ClearRegistry();
        mb::flags() = mb::Flags();
    }
};

// Each iteration "takes" the time the next entry of `times` says (manual
// time), one entry per call of the benchmark, the last repeating; `counts`
// receives the iteration count of each call.
void add_manual(const char* name, std::vector<double> times, std::vector<int64_t>* counts = nullptr) {
    auto call = std::make_shared<size_t>(0);
    benchmark::RegisterBenchmark(name,
                                 [times, counts, call](benchmark::State& state) {
                                     const double t = times[std::min((*call)++, times.size() - 1)];
                                     for (auto _ : state) state.SetIterationTime(t);
                                     if (counts) counts->push_back(state.iterations());
                                     state.counters["x_copy"] = t * 1000.0;
                                     state.SetBytesProcessed(state.iterations() * 1000);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
}

TEST_F(BenchMiniRun, GrowsTheIterationCountUntilARunLastsMinTime) {
    std::vector<int64_t> counts;
    add_manual("grow", {0.001}, &counts);
    mb::flags().min_time = 0.05;
    Collector c;
    EXPECT_EQ(benchmark::RunSpecifiedBenchmarks(&c), 1u);
    // 1 iteration: 1 ms, too short to predict from; 10: 10 ms, aim at 70 ms.
    EXPECT_EQ(counts, (std::vector<int64_t>{1, 10, 70}));
    ASSERT_EQ(c.runs.size(), 1u);
    EXPECT_EQ(c.runs[0].benchmark_name(), "grow/manual_time");
    EXPECT_EQ(c.runs[0].iterations, 70);
    EXPECT_NEAR(c.runs[0].GetAdjustedRealTime(), 1.0, 1e-9);
    // Rates divide by the measured (manual) time: 70,000 bytes in 70 ms.
    EXPECT_NEAR(c.runs[0].counters.at("bytes_per_second").value, 1e6, 1e-3);
}

TEST_F(BenchMiniRun, RepetitionsReuseTheFirstCountAndAggregate) {
    std::vector<int64_t> counts;
    // 1 ms is over a tenth of 9.5 ms, so the first repetition predicts
    // 1.4 x 9.5 = 13.3 iterations at once; the others reuse 13, even the
    // second, whose 13 iterations fall short of the minimum time.
    add_manual("rep", {0.001, 0.001, 0.0005, 0.0025}, &counts);
    mb::flags().min_time = 0.0095;
    mb::flags().repetitions = 3;
    Collector c;
    benchmark::RunSpecifiedBenchmarks(&c);
    EXPECT_EQ(counts, (std::vector<int64_t>{1, 13, 13, 13}));
    ASSERT_EQ(c.runs.size(), 3u + 4u);
    for (int64_t i = 0; i < 3; ++i) {
        EXPECT_EQ(c.runs[i].run_type, Report::RT_Iteration);
        EXPECT_EQ(c.runs[i].repetition_index, i);
    }
    EXPECT_EQ(c.runs[3].aggregate_name, "mean");
    EXPECT_NEAR(c.runs[3].GetAdjustedRealTime(), 4.0 / 3.0, 1e-9);
    EXPECT_EQ(c.runs[4].aggregate_name, "median");
    EXPECT_NEAR(c.runs[4].GetAdjustedRealTime(), 1.0, 1e-9);
    EXPECT_NEAR(c.runs[4].counters.at("x_copy").value, 1.0, 1e-9);
    EXPECT_EQ(c.context.name_field_width, std::string("rep/manual_time_median").size());
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST_F(BenchMiniRun, AggregateFlagsChooseWhatEachReportShows) {
    add_manual("a", {0.001});
    mb::flags().min_time = 0.001;
    mb::flags().repetitions = 2;
    const char* tmp = std::getenv("TMPDIR");
    const std::string path =
        std::string(tmp && *tmp ? tmp : "/tmp").append("/minibench.").append(std::to_string(getpid())).append(".json");
    mb::flags().out = path;

    mb::flags().display_aggregates_only = true;  // the file keeps the repetitions
    Collector display;
    benchmark::RunSpecifiedBenchmarks(&display);
    ASSERT_EQ(display.runs.size(), 4u);
    for (const Report& r : display.runs) EXPECT_EQ(r.run_type, Report::RT_Aggregate);
    EXPECT_EQ(FlatJson(read_file(path)).length("benchmarks"), 6u);

    mb::flags().display_aggregates_only = false;
    mb::flags().report_aggregates_only = true;  // neither keeps them
    Collector both;
    benchmark::RunSpecifiedBenchmarks(&both);
    EXPECT_EQ(both.runs.size(), 4u);
    EXPECT_EQ(FlatJson(read_file(path)).length("benchmarks"), 4u);
    std::remove(path.c_str());

    mb::flags().out.clear();
    mb::flags().repetitions = 1;  // nothing to aggregate: the run is shown
    Collector single;
    benchmark::RunSpecifiedBenchmarks(&single);
    ASSERT_EQ(single.runs.size(), 1u);
    EXPECT_EQ(single.runs[0].run_type, Report::RT_Iteration);
}

TEST_F(BenchMiniRun, FilterMatchesTheFullNameAndCanExclude) {
    auto noop = [](benchmark::State& state) {
        for (auto _ : state) benchmark::ClobberMemory();
    };
    benchmark::RegisterBenchmark("copy/1280x720", noop)->UseRealTime();
    benchmark::RegisterBenchmark("table_pass/1280x720", noop)->UseRealTime();
    benchmark::RegisterBenchmark("stage/gamma_table", noop);
    mb::flags().list_tests = true;
    auto listed = [](const char* filter) {
        mb::flags().filter = filter;
        Collector c;
        const size_t n = benchmark::RunSpecifiedBenchmarks(&c);
        const std::string names = c.out.str();
        EXPECT_TRUE(c.runs.empty());
        EXPECT_EQ(n, static_cast<size_t>(std::count(names.begin(), names.end(), '\n')));
        return names;
    };
    EXPECT_EQ(listed("all"), "copy/1280x720/real_time\ntable_pass/1280x720/real_time\nstage/gamma_table\n");
    EXPECT_EQ(listed("1280x720/real_time$"), "copy/1280x720/real_time\ntable_pass/1280x720/real_time\n");
    EXPECT_EQ(listed("^(copy|stage)/"), "copy/1280x720/real_time\nstage/gamma_table\n");
    EXPECT_EQ(listed("-copy"), "table_pass/1280x720/real_time\nstage/gamma_table\n");
    EXPECT_EQ(listed("3840x2160"), "");
}

TEST_F(BenchMiniRun, ABenchmarkThatSkipsItsLoopIsAnErrorNotAHang) {
    benchmark::RegisterBenchmark("lazy", [](benchmark::State&) {});
    mb::flags().repetitions = 3;
    Collector c;
    benchmark::RunSpecifiedBenchmarks(&c);
    ASSERT_EQ(c.runs.size(), 3u);  // no aggregates of failures
    for (const Report& r : c.runs) EXPECT_TRUE(r.error_occurred);
}

// ---------------------------------------------------------------------------
// Report formats

TEST_F(BenchMiniRun, JsonReportCarriesWhatTheScriptsRead) {
    add_manual("process/mode0/I420/in_place/1280x720", {0.001, 0.001, 0.003});
    const std::string odd = "odd \"name\" with \\ and\ttab";
    benchmark::RegisterBenchmark(odd.c_str(), [](benchmark::State& state) {
        for (auto _ : state) state.SetIterationTime(0.5);
    })->UseManualTime();
    mb::flags().min_time = 0.01;
    mb::flags().repetitions = 2;
    benchmark::JSONReporter json;
    std::ostringstream out;
    json.SetOutputStream(&out);
    benchmark::RunSpecifiedBenchmarks(&json);

    const FlatJson doc(out.str());
    ASSERT_TRUE(doc.ok()) << out.str();
    for (const char* key : {"date", "host_name", "executable", "num_cpus"})
        EXPECT_TRUE(doc.has(std::string("context.") + key)) << key;
    ASSERT_EQ(doc.length("benchmarks"), 12u);
    for (size_t i = 0; i < 12; ++i)
        for (const char* key : {"name", "run_name", "run_type", "repetitions", "iterations", "real_time", "cpu_time",
                                "time_unit", "family_index"})
            EXPECT_TRUE(doc.has(std::string("benchmarks.").append(std::to_string(i)).append(".").append(key)))
                << i << key;
    const std::string run = "process/mode0/I420/in_place/1280x720/manual_time";
    EXPECT_EQ(doc["benchmarks.0.name"], run);
    EXPECT_EQ(doc["benchmarks.0.run_type"], "iteration");
    EXPECT_EQ(doc["benchmarks.0.repetition_index"], "0");
    EXPECT_EQ(doc["benchmarks.0.time_unit"], "ms");
    EXPECT_FALSE(doc.has("benchmarks.0.aggregate_name"));
    EXPECT_EQ(doc["benchmarks.3.name"], run + "_median");
    EXPECT_EQ(doc["benchmarks.3.run_name"], run);
    EXPECT_EQ(doc["benchmarks.3.run_type"], "aggregate");
    EXPECT_EQ(doc["benchmarks.3.aggregate_name"], "median");
    EXPECT_EQ(doc["benchmarks.3.iterations"], "2");
    EXPECT_NEAR(doc.number("benchmarks.3.real_time"), 2.0, 1e-9);  // of 1 and 3 ms
    EXPECT_NEAR(doc.number("benchmarks.3.x_copy"), 2.0, 1e-9);
    EXPECT_EQ(doc["benchmarks.5.aggregate_unit"], "percentage");
    EXPECT_EQ(doc["benchmarks.6.run_name"], odd + "/manual_time");  // exactly as registered
    EXPECT_EQ(doc["benchmarks.6.time_unit"], "ns");
    EXPECT_NEAR(doc.number("benchmarks.6.real_time"), 5e8, 1e-3);
}

TEST(BenchMiniFormat, JsonEscapesAndCounterPrefixes) {
    EXPECT_EQ(mb::JsonEscape("a\"b\\c\n\t\r\b\f\x01\x1f/µ"), "a\\\"b\\\\c\\n\\t\\r\\b\\f\\u0001\\u001f/µ");
    EXPECT_EQ(mb::HumanReadableNumber(17510492549.0, 1024), "16.3079G");
    EXPECT_EQ(mb::HumanReadableNumber(1500.0, 1000), "1.5k");
    EXPECT_EQ(mb::HumanReadableNumber(999.0, 1000), "999");
    EXPECT_EQ(mb::HumanReadableNumber(0.0806112, 1000), "0.0806112");
    EXPECT_EQ(mb::HumanReadableNumber(0.00141273, 1000), "1.41273m");
    EXPECT_EQ(mb::HumanReadableNumber(-2.5e-6, 1000), "-2.5u");
}

TEST_F(BenchMiniRun, ConsoleRowsLineUpUnderTheirHeader) {
    add_manual("copy/1280x720", {0.001, 0.001, 0.003});
    benchmark::RegisterBenchmark("stage/gamma_table",
                                 [](benchmark::State& state) {
                                     for (auto _ : state) state.SetIterationTime(0.001);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
    mb::flags().min_time = 0.01;
    mb::flags().repetitions = 2;
    benchmark::ConsoleReporter console(benchmark::ConsoleReporter::OO_Tabular);
    std::ostringstream out, err;
    console.SetOutputStream(&out);
    console.SetErrorStream(&err);
    benchmark::RunSpecifiedBenchmarks(&console);

    EXPECT_NE(err.str().find("Running "), std::string::npos);
    const std::string text = out.str();
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    // A new header when the counter columns change (the second has none).
    size_t headers = 0, width = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].rfind("Benchmark", 0) == 0) {
            ++headers;
            width = lines[i].size();
            EXPECT_EQ(lines[i - 1], std::string(width, '-'));
        } else if (lines[i][0] != '-') {
            EXPECT_EQ(lines[i].size(), width) << lines[i];
        }
    }
    EXPECT_EQ(headers, 2u);
    EXPECT_NE(text.find("Iterations bytes_per_second     x_copy\n"), std::string::npos);
    for (const char* suffix : {"_mean ", "_median ", "_stddev ", "_cv "})
        EXPECT_NE(text.find(std::string("copy/1280x720/manual_time") + suffix), std::string::npos) << suffix;
    // The median of 1 and 3 ms; the spread as a percentage.
    const size_t median = text.find("copy/1280x720/manual_time_median ");
    EXPECT_NE(text.substr(median, text.find('\n', median) - median).find(" 2.00 ms "), std::string::npos);
    const size_t cv = text.find("copy/1280x720/manual_time_cv ");
    EXPECT_NE(text.substr(cv, text.find('\n', cv) - cv).find(" %  "), std::string::npos);
}

}  // namespace
