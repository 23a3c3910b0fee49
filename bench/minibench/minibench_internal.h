// minibench internals that its tests reach: the flags, the statistics, the
// iteration growth and the report formatting.
#pragma once

#include <string>
#include <vector>

#include "benchmark/benchmark.h"

namespace benchmark::minibench {

struct Flags {
    std::string filter = ".";
    int64_t repetitions = 1;
    double min_time = 0.5;                // seconds per measured run
    IterationCount fixed_iterations = 0;  // --benchmark_min_time=<N>x
    bool report_aggregates_only = false;
    bool display_aggregates_only = false;
    std::string format = "console";
    std::string out;
    std::string out_format = "json";
    bool list_tests = false;
};

// The flags in force (Initialize writes them; tests set them directly).
Flags& flags();

// Applies one --benchmark_* argument; false when it is not one of ours or
// its value does not parse (it is then left for ReportUnrecognizedArguments).
bool ApplyFlag(const std::string& argument);

// Forgets every registered benchmark.
void ClearRegistry();

// Runs are measured until they last min_time; an iteration count cannot
// grow beyond this.
constexpr IterationCount kMaxIterations = 1000000000;

// The count for the next attempt after `iterations` took `seconds`: aim for
// 1.4 x min_time, but grow only tenfold while the attempt is too short (a
// tenth of min_time or less) to predict from; always at least one more.
IterationCount NextIterationCount(IterationCount iterations, double seconds, double min_time);

double Mean(const std::vector<double>& v);
// The middle value, or the mean of the two middle values.
double Median(std::vector<double> v);
// Sample standard deviation (n - 1); 0 for fewer than two values.
double StandardDeviation(const std::vector<double>& v);
// Standard deviation over mean; 0 for fewer than two values.
double CoefficientOfVariation(const std::vector<double>& v);

// mean, median, stddev and cv of the repetitions that did not fail; none
// when fewer than two remain.
std::vector<BenchmarkReporter::Run> ComputeAggregates(const std::vector<BenchmarkReporter::Run>& repetitions);

std::string JsonEscape(const std::string& s);
// 6 significant digits with an SI prefix (k, M, G, T with base one_k; m, u,
// n for small values), as the console's counter columns show them.
std::string HumanReadableNumber(double value, double one_k);

}  // namespace benchmark::minibench
