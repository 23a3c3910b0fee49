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

// Occurrences of a text in a report: JSON well-formedness itself is checked
// by the benchmark smoke run, which parses qimra-bench's report.
size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// ---------------------------------------------------------------------------
// Statistics and iteration growth

TEST(BenchMiniStatistics, MedianAndSampleSpread) {
    EXPECT_EQ(mb::Median({4.0, 1.0, 3.0, 2.0}), 2.5);
    EXPECT_EQ(mb::Median({1.0, 100.0, 2.0, 3.0, 2.0}), 2.0);  // an outlier does not move it
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
    EXPECT_EQ(aggregates[3].benchmark_name(), "process/1280x720/manual_time_cv");
    EXPECT_EQ(aggregates[0].iterations, 3);  // the repetitions aggregated
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

TEST(BenchMiniFlags, InitializeTakesOutItsOwnAndRefusesBadValues) {
    std::vector<std::string> words = {"prog",
                                      "--benchmark_min_time=0.2s",
                                      "--media-dir=/data/local/tmp",
                                      "--benchmark_repetitions=5",
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
    EXPECT_DOUBLE_EQ(mb::flags().min_time, 0.2);
    EXPECT_EQ(mb::flags().repetitions, 5);
    EXPECT_EQ(mb::flags().out, "report.json");
    EXPECT_TRUE(mb::ApplyFlag("--benchmark_min_time=100x"));
    EXPECT_EQ(mb::flags().fixed_iterations, 100);
    for (const char* bad : {"--benchmark_min_time=fast", "--benchmark_min_time=-1", "--benchmark_min_time=0x",
                            "--benchmark_repetitions=0", "--benchmark_repetitions=3.5", "--benchmark_format=csv",
                            "--benchmark_list_tests=maybe", "--benchmark_out=", "benchmark_filter=a"})
        EXPECT_FALSE(mb::ApplyFlag(bad)) << bad;
    EXPECT_EQ(mb::flags().repetitions, 5);
    EXPECT_EQ(mb::flags().out, "report.json");
    mb::flags() = mb::Flags();
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
    EXPECT_EQ(count(read_file(path), "\"run_type\""), 6u);

    mb::flags().display_aggregates_only = false;
    mb::flags().report_aggregates_only = true;  // neither keeps them
    Collector both;
    benchmark::RunSpecifiedBenchmarks(&both);
    EXPECT_EQ(both.runs.size(), 4u);
    EXPECT_EQ(count(read_file(path), "\"run_type\""), 4u);
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

    const std::string doc = out.str();
    for (const char* key : {"\"date\"", "\"host_name\"", "\"executable\"", "\"num_cpus\""})
        EXPECT_EQ(count(doc, key), 1u) << key;
    for (const char* key : {"\"name\"", "\"run_name\"", "\"run_type\"", "\"repetitions\"", "\"iterations\"",
                            "\"real_time\"", "\"cpu_time\"", "\"time_unit\"", "\"family_index\""})
        EXPECT_EQ(count(doc, key), 12u) << key;
    const std::string run = "process/mode0/I420/in_place/1280x720/manual_time";
    EXPECT_EQ(count(doc, "\"run_type\": \"aggregate\""), 8u);
    EXPECT_EQ(count(doc, "\"aggregate_name\""), 8u);
    // The median entry of 1 and 3 ms, its counter aggregated the same way.
    const std::string median = doc.substr(doc.find("\"name\": \"" + run + "_median\""));
    EXPECT_NE(median.find("\"run_name\": \"" + run + "\""), std::string::npos);
    EXPECT_NE(median.find("\"iterations\": 2,"), std::string::npos);
    EXPECT_NE(median.find("\"real_time\": 2.0"), std::string::npos);
    EXPECT_NE(median.find("\"x_copy\": 2.0"), std::string::npos);
    EXPECT_EQ(count(doc, "\"aggregate_unit\": \"percentage\""), 2u);
    // Names go out exactly as registered, escaped.
    EXPECT_EQ(count(doc, "\"run_name\": \"odd \\\"name\\\" with \\\\ and\\ttab/manual_time\""), 6u);
}

TEST(BenchMiniFormat, JsonEscapesAndCounterPrefixes) {
    EXPECT_EQ(mb::JsonEscape("a\"b\\c\n\t\r\b\f\x01\x1f/µ"), "a\\\"b\\\\c\\n\\t\\r\\b\\f\\u0001\\u001f/µ");
    EXPECT_EQ(mb::HumanReadableNumber(17510492549.0, 1024), "16.3079G");
    EXPECT_EQ(mb::HumanReadableNumber(1500.0, 1000), "1.5k");
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
    // The median of 1 and 3 ms; the spread as a percentage.
    const size_t median = text.find("copy/1280x720/manual_time_median ");
    EXPECT_NE(text.substr(median, text.find('\n', median) - median).find(" 2.00 ms "), std::string::npos);
    const size_t cv = text.find("copy/1280x720/manual_time_cv ");
    EXPECT_NE(text.substr(cv, text.find('\n', cv) - cv).find(" %  "), std::string::npos);
}

}  // namespace
