// minibench: registration, flags, the measuring loop, statistics and the
// console and JSON reports. See benchmark/benchmark.h for what it covers.
#include <regex.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "benchmark/benchmark.h"
#include "minibench_internal.h"

namespace benchmark {
namespace minibench {

namespace {

std::vector<std::unique_ptr<internal::Benchmark>>& registry() {
    static std::vector<std::unique_ptr<internal::Benchmark>> benchmarks;
    return benchmarks;
}

std::string& executable_name() {
    static std::string name = "benchmark";
    return name;
}

std::string format_string(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string format_string(const char* format, ...) {
    char small[256];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n < 0) return std::string();
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::string big(static_cast<size_t>(n) + 1, '\0');
    va_start(args, format);
    std::vsnprintf(big.data(), big.size(), format, args);
    va_end(args);
    big.resize(static_cast<size_t>(n));
    return big;
}

// The value after "--name=" or "-name=" ("" for a bare "--name"); nullptr
// when the argument is not this flag.
const char* flag_value(const std::string& argument, const char* name) {
    size_t at = 0;
    while (at < 2 && at < argument.size() && argument[at] == '-') ++at;
    if (at == 0) return nullptr;
    const size_t length = std::strlen(name);
    if (argument.compare(at, length, name) != 0) return nullptr;
    const size_t end = at + length;
    if (end == argument.size()) return argument.c_str() + end;
    if (argument[end] != '=') return nullptr;
    return argument.c_str() + end + 1;
}

bool parse_bool(const char* text, bool* out) {
    std::string v(text);
    std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (v.empty() || v == "true" || v == "yes" || v == "on" || v == "1" || v == "t" || v == "y") {
        *out = true;
        return true;
    }
    if (v == "false" || v == "no" || v == "off" || v == "0" || v == "f" || v == "n") {
        *out = false;
        return true;
    }
    return false;
}

bool parse_int(const char* text, int64_t* out) {
    if (*text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *out = v;
    return true;
}

// "0.2", "0.2s" (seconds) or "100x" (a fixed iteration count).
bool parse_min_time(const char* text, Flags* f) {
    std::string v(text);
    if (!v.empty() && v.back() == 'x') {
        int64_t n = 0;
        if (!parse_int(v.substr(0, v.size() - 1).c_str(), &n) || n < 1) return false;
        f->fixed_iterations = n;
        return true;
    }
    if (!v.empty() && v.back() == 's') v.pop_back();
    if (v.empty()) return false;
    char* end = nullptr;
    const double seconds = std::strtod(v.c_str(), &end);
    if (*end != '\0' || !(seconds >= 0.0) || !std::isfinite(seconds)) return false;
    f->min_time = seconds;
    f->fixed_iterations = 0;
    return true;
}

bool is_format(const char* text) { return std::strcmp(text, "console") == 0 || std::strcmp(text, "json") == 0; }

void print_usage(const char* program) {
    std::printf(
        "%s [--benchmark_list_tests={true|false}]\n"
        "    [--benchmark_filter=<regex>]          benchmarks to run (a leading '-' excludes)\n"
        "    [--benchmark_min_time=<seconds>[s] | <iterations>x]\n"
        "    [--benchmark_repetitions=<num>]\n"
        "    [--benchmark_report_aggregates_only={true|false}]\n"
        "    [--benchmark_display_aggregates_only={true|false}]\n"
        "    [--benchmark_format=<console|json>]\n"
        "    [--benchmark_out=<filename>]\n"
        "    [--benchmark_out_format=<json|console>]\n"
        "(minibench, the in-tree stand-in for Google Benchmark)\n",
        program);
}

double now_real() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// The calling thread's CPU time, as Google Benchmark reports it for
// single-threaded benchmarks (a worker thread's time is not included).
double now_cpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double time_unit_multiplier(TimeUnit unit) {
    switch (unit) {
        case kSecond: return 1.0;
        case kMillisecond: return 1e3;
        case kMicrosecond: return 1e6;
        case kNanosecond: break;
    }
    return 1e9;
}

const char* time_unit_string(TimeUnit unit) {
    switch (unit) {
        case kSecond: return "s";
        case kMillisecond: return "ms";
        case kMicrosecond: return "us";
        case kNanosecond: break;
    }
    return "ns";
}

}  // namespace

Flags& flags() {
    static Flags f;
    return f;
}

bool ApplyFlag(const std::string& argument) {
    Flags& f = flags();
    const char* v = nullptr;
    if ((v = flag_value(argument, "benchmark_filter"))) {
        f.filter = v;
        return true;
    }
    if ((v = flag_value(argument, "benchmark_repetitions"))) {
        int64_t n = 0;
        if (!parse_int(v, &n) || n < 1) return false;
        f.repetitions = n;
        return true;
    }
    if ((v = flag_value(argument, "benchmark_min_time"))) return parse_min_time(v, &f);
    if ((v = flag_value(argument, "benchmark_report_aggregates_only"))) return parse_bool(v, &f.report_aggregates_only);
    if ((v = flag_value(argument, "benchmark_display_aggregates_only")))
        return parse_bool(v, &f.display_aggregates_only);
    if ((v = flag_value(argument, "benchmark_list_tests"))) return parse_bool(v, &f.list_tests);
    if ((v = flag_value(argument, "benchmark_format"))) {
        if (!is_format(v)) return false;
        f.format = v;
        return true;
    }
    if ((v = flag_value(argument, "benchmark_out_format"))) {
        if (!is_format(v)) return false;
        f.out_format = v;
        return true;
    }
    if ((v = flag_value(argument, "benchmark_out"))) {
        if (*v == '\0') return false;
        f.out = v;
        return true;
    }
    return false;
}

void ClearRegistry() { registry().clear(); }

IterationCount NextIterationCount(IterationCount iterations, double seconds, double min_time) {
    const double n = static_cast<double>(iterations);
    double multiplier = 10.0;
    if (min_time > 0.0 && seconds / min_time > 0.1) multiplier = min_time * 1.4 / std::max(seconds, 1e-9);
    const double next = std::min(std::max(multiplier * n, n + 1.0), static_cast<double>(kMaxIterations));
    return static_cast<IterationCount>(std::llround(next));
}

double Mean(const std::vector<double>& v) {
    if (v.empty()) return 0.0;
    double sum = 0.0;
    for (const double x : v) sum += x;
    return sum / static_cast<double>(v.size());
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t half = v.size() / 2;
    return v.size() % 2 == 1 ? v[half] : (v[half - 1] + v[half]) / 2.0;
}

double StandardDeviation(const std::vector<double>& v) {
    if (v.size() < 2) return 0.0;
    const double mean = Mean(v);
    double squares = 0.0;
    for (const double x : v) squares += (x - mean) * (x - mean);
    return std::sqrt(squares / static_cast<double>(v.size() - 1));
}

double CoefficientOfVariation(const std::vector<double>& v) {
    if (v.size() < 2) return 0.0;
    const double mean = Mean(v);
    return mean == 0.0 ? 0.0 : StandardDeviation(v) / mean;
}

std::vector<BenchmarkReporter::Run> ComputeAggregates(const std::vector<BenchmarkReporter::Run>& repetitions) {
    using Run = BenchmarkReporter::Run;
    std::vector<const Run*> valid;
    for (const Run& r : repetitions)
        if (!r.error_occurred) valid.push_back(&r);
    if (valid.size() < 2) return {};

    // Times per iteration, so that repetitions of different length compare.
    std::vector<double> real, cpu;
    for (const Run* r : valid) {
        const double n = static_cast<double>(std::max<IterationCount>(r->iterations, 1));
        real.push_back(r->real_accumulated_time / n);
        cpu.push_back(r->cpu_accumulated_time / n);
    }
    std::map<std::string, std::vector<double>> counter_values;
    for (const auto& [name, counter] : valid.front()->counters)
        for (const Run* r : valid) {
            const auto it = r->counters.find(name);
            if (it != r->counters.end()) counter_values[name].push_back(it->second.value);
        }

    struct Statistic {
        const char* name;
        StatisticUnit unit;
        double (*compute)(const std::vector<double>&);
    };
    static const Statistic kStatistics[] = {
        {"mean", kTime, Mean},
        {"median", kTime, [](const std::vector<double>& v) { return Median(v); }},
        {"stddev", kTime, StandardDeviation},
        {"cv", kPercentage, CoefficientOfVariation},
    };
    std::vector<Run> aggregates;
    for (const Statistic& s : kStatistics) {
        Run a;
        a.run_name = valid.front()->run_name;
        a.family_index = valid.front()->family_index;
        a.per_family_instance_index = valid.front()->per_family_instance_index;
        a.run_type = Run::RT_Aggregate;
        a.aggregate_name = s.name;
        a.aggregate_unit = s.unit;
        a.iterations = static_cast<IterationCount>(valid.size());
        a.threads = valid.front()->threads;
        a.repetitions = valid.front()->repetitions;
        a.time_unit = valid.front()->time_unit;
        a.real_accumulated_time = s.compute(real);
        a.cpu_accumulated_time = s.compute(cpu);
        for (const auto& [name, values] : counter_values) {
            const Counter& like = valid.front()->counters.at(name);
            a.counters[name] = Counter(s.compute(values), like.flags, like.oneK);
        }
        aggregates.push_back(std::move(a));
    }
    return aggregates;
}

std::string JsonEscape(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\b': out += "\\b"; break;
            case '\f': out += "\\f"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20)
                    out += format_string("\\u%04x", c);
                else
                    out += ch;
        }
    }
    return out;
}

std::string HumanReadableNumber(double value, double one_k) {
    if (value == 0.0 || !std::isfinite(value)) return format_string("%g", value);
    static const char* const kBig[] = {"k", "M", "G", "T", "P", "E"};
    static const char* const kSmall[] = {"m", "u", "n", "p", "f", "a"};
    double magnitude = std::fabs(value);
    int step = 0;
    if (magnitude >= one_k) {
        while (magnitude >= one_k && step < 6) {
            magnitude /= one_k;
            value /= one_k;
            ++step;
        }
        return format_string("%g", value) + kBig[step - 1];
    }
    // Plain down to a hundredth, where %g would start to lose digits to
    // leading zeros.
    if (magnitude >= 0.01) return format_string("%g", value);
    while (magnitude < 1.0 && step < 6) {
        magnitude *= 1000.0;
        value *= 1000.0;
        ++step;
    }
    return format_string("%g", value) + kSmall[step - 1];
}

}  // namespace minibench

using minibench::flags;
using minibench::format_string;

// ---------------------------------------------------------------------------
// State and the measuring loop

void State::StartKeepRunning() {
    started_ = true;
    real_start_ = minibench::now_real();
    cpu_start_ = minibench::now_cpu();
}

void State::FinishKeepRunning() {
    real_seconds_ = minibench::now_real() - real_start_;
    cpu_seconds_ = minibench::now_cpu() - cpu_start_;
    remaining_ = 0;
    finished_ = true;
}

namespace internal {

Benchmark* RegisterBenchmarkInternal(const char* name, std::function<void(State&)> fn) {
    minibench::registry().push_back(std::make_unique<Benchmark>(name, std::move(fn)));
    return minibench::registry().back().get();
}

// Runs benchmarks and turns what their State measured into reports.
class Runner {
public:
    struct Instance {
        const Benchmark* benchmark;
        BenchmarkReporter::BenchmarkName name;
        int64_t family_index;
    };

    // One repetition. The first grows the iteration count until a run lasts
    // min_time; later ones reuse that count, so repetitions compare.
    static BenchmarkReporter::Run Measure(const Instance& instance, IterationCount& iterations, int64_t repetition) {
        const minibench::Flags& f = flags();
        const Benchmark& b = *instance.benchmark;
        for (;;) {
            State state(iterations);
            b.Run(state);
            const bool complete = state.finished_;
            const double seconds = measured_seconds(b, state);
            const bool final = !complete || repetition > 0 || f.fixed_iterations > 0 ||
                               iterations >= minibench::kMaxIterations || seconds >= f.min_time;
            if (final) return report(instance, state, repetition);
            iterations = minibench::NextIterationCount(iterations, seconds, f.min_time);
        }
    }

private:
    // The time that decides the iteration count and divides rates.
    static double measured_seconds(const Benchmark& b, const State& state) {
        switch (b.timing()) {
            case Benchmark::Timing::kManual: return state.manual_seconds_;
            case Benchmark::Timing::kReal: return state.real_seconds_;
            case Benchmark::Timing::kCpu: break;
        }
        return state.cpu_seconds_;
    }

    static BenchmarkReporter::Run report(const Instance& instance, State& state, int64_t repetition) {
        const Benchmark& b = *instance.benchmark;
        BenchmarkReporter::Run run;
        run.run_name = instance.name;
        run.family_index = instance.family_index;
        run.repetition_index = repetition;
        run.repetitions = flags().repetitions;
        run.time_unit = b.unit();
        run.iterations = state.max_iterations;
        if (!state.finished_) {
            run.error_occurred = true;
            run.error_message = "the benchmark returned before its loop ended";
            return run;
        }
        const double seconds = measured_seconds(b, state);
        run.real_accumulated_time =
            b.timing() == Benchmark::Timing::kManual ? state.manual_seconds_ : state.real_seconds_;
        run.cpu_accumulated_time = state.cpu_seconds_;
        run.counters = std::move(state.counters);
        for (auto& [name, counter] : run.counters) {
            if (counter.flags & Counter::kIsRate) counter.value = seconds > 0.0 ? counter.value / seconds : 0.0;
            if (counter.flags & Counter::kAvgIterations) counter.value /= static_cast<double>(run.iterations);
        }
        return run;
    }
};

}  // namespace internal

// ---------------------------------------------------------------------------
// Runs and reporters

std::string BenchmarkReporter::Run::benchmark_name() const {
    return run_type == RT_Aggregate ? run_name.str() + "_" + aggregate_name : run_name.str();
}

double BenchmarkReporter::Run::GetAdjustedRealTime() const {
    if (run_type == RT_Aggregate)
        return aggregate_unit == kPercentage ? real_accumulated_time
                                             : real_accumulated_time * minibench::time_unit_multiplier(time_unit);
    const double t = real_accumulated_time * minibench::time_unit_multiplier(time_unit);
    return iterations != 0 ? t / static_cast<double>(iterations) : t;
}

double BenchmarkReporter::Run::GetAdjustedCPUTime() const {
    if (run_type == RT_Aggregate)
        return aggregate_unit == kPercentage ? cpu_accumulated_time
                                             : cpu_accumulated_time * minibench::time_unit_multiplier(time_unit);
    const double t = cpu_accumulated_time * minibench::time_unit_multiplier(time_unit);
    return iterations != 0 ? t / static_cast<double>(iterations) : t;
}

BenchmarkReporter::BenchmarkReporter() : output_stream_(&std::cout), error_stream_(&std::cerr) {}

namespace {

std::string read_line(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// "2026-01-31T12:00:00+01:00"
std::string local_date_time() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[64];
    if (strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local) == 0) return std::string();
    std::string s(text);
    if (s.size() >= 5) s.insert(s.size() - 2, ":");
    return s;
}

std::string host_name() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) return std::string();
    return name;
}

// Bits set in a sysfs CPU mask such as "00000000,00000003".
int count_cpus_in_mask(const std::string& mask) {
    int n = 0;
    for (const char c : mask) {
        const int digit = std::isdigit(static_cast<unsigned char>(c))    ? c - '0'
                          : std::isxdigit(static_cast<unsigned char>(c)) ? std::tolower(c) - 'a' + 10
                                                                         : 0;
        n += __builtin_popcount(static_cast<unsigned>(digit));
    }
    return n;
}

BenchmarkReporter::Context gather_context(size_t name_field_width) {
    BenchmarkReporter::Context c;
    c.executable_name = minibench::executable_name();
    c.num_cpus = static_cast<int>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    c.name_field_width = name_field_width;
    const std::string cpu0 = "/sys/devices/system/cpu/cpu0/";
    // Phones report a frequency range; the maximum is the one to read here.
    const std::string max_khz = read_line(cpu0 + "cpufreq/cpuinfo_max_freq");
    if (!max_khz.empty()) c.mhz_per_cpu = std::atof(max_khz.c_str()) / 1000.0;
    if (c.mhz_per_cpu <= 0.0) {
        std::ifstream cpuinfo("/proc/cpuinfo");
        for (std::string line; std::getline(cpuinfo, line);)
            if (line.rfind("cpu MHz", 0) == 0 && line.find(':') != std::string::npos) {
                c.mhz_per_cpu = std::atof(line.c_str() + line.find(':') + 1);
                break;
            }
    }
    const std::string governor = read_line(cpu0 + "cpufreq/scaling_governor");
    c.cpu_scaling_enabled = !governor.empty() && governor != "performance";
    for (int index = 0; index < 16; ++index) {
        const std::string dir = cpu0 + "cache/index" + std::to_string(index) + "/";
        const std::string size = read_line(dir + "size");
        if (size.empty()) break;
        BenchmarkReporter::CacheInfo cache;
        cache.type = read_line(dir + "type");
        cache.level = std::atoi(read_line(dir + "level").c_str());
        cache.size = std::atoll(size.c_str());
        if (size.back() == 'K') cache.size *= 1024;
        if (size.back() == 'M') cache.size *= 1024 * 1024;
        cache.num_sharing = count_cpus_in_mask(read_line(dir + "shared_cpu_map"));
        c.caches.push_back(cache);
    }
    std::istringstream load(read_line("/proc/loadavg"));
    for (double v = 0.0; c.load_avg.size() < 3 && load >> v;) c.load_avg.push_back(v);
    return c;
}

#ifdef NDEBUG
constexpr bool kDebugBuild = false;
#else
constexpr bool kDebugBuild = true;
#endif

enum class Colour { kDefault, kRed, kGreen, kYellow, kCyan };

void put(std::ostream& out, bool colour, Colour c, const std::string& text) {
    if (!colour || c == Colour::kDefault) {
        out << text;
        return;
    }
    const char* code = c == Colour::kRed ? "31" : c == Colour::kGreen ? "32" : c == Colour::kYellow ? "33" : "36";
    out << "\033[" << code << "m" << text << "\033[m";
}

// Ten characters, with as many decimals as keep the column aligned.
std::string format_time(double t) {
    if (t < 1.0) return format_string("%10.3f", t);
    if (t < 10.0) return format_string("%10.2f", t);
    if (t < 100.0) return format_string("%10.1f", t);
    if (t >= 1e10) return format_string("%10.4e", t);
    return format_string("%10.0f", t);
}

bool same_counter_names(const UserCounters& a, const UserCounters& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) { return x.first == y.first; });
}

// Doubles in full precision; JSON has no NaN or infinity, so those are null.
std::string json_number(double v) { return std::isfinite(v) ? format_string("%.16e", v) : std::string("null"); }

}  // namespace

bool ConsoleReporter::ReportContext(const Context& context) {
    name_field_width_ = context.name_field_width;
    std::ostream& err = GetErrorStream();
    err << local_date_time() << "\n";
    err << "Running " << context.executable_name << "\n";
    err << "Timed by minibench (the in-tree stand-in for Google Benchmark)\n";
    err << "Run on (" << context.num_cpus << " X " << context.mhz_per_cpu << " MHz CPU "
        << (context.num_cpus > 1 ? "s" : "") << ")\n";
    if (!context.caches.empty()) {
        err << "CPU Caches:\n";
        for (const CacheInfo& cache : context.caches) {
            err << "  L" << cache.level << " " << cache.type << " " << cache.size / 1024 << " KiB";
            if (cache.num_sharing > 0) err << " (x" << context.num_cpus / cache.num_sharing << ")";
            err << "\n";
        }
    }
    if (!context.load_avg.empty()) {
        err << "Load Average: ";
        for (size_t i = 0; i < context.load_avg.size(); ++i)
            err << (i ? ", " : "") << format_string("%.2f", context.load_avg[i]);
        err << "\n";
    }
    if (context.cpu_scaling_enabled)
        err << "***WARNING*** CPU scaling is enabled, the benchmark real time measurements may be noisy and will "
               "incur extra overhead.\n";
    if (kDebugBuild) err << "***WARNING*** Library was built as DEBUG. Timings may be affected.\n";
    err.flush();
    return true;
}

void ConsoleReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        // A new header whenever the counter columns change.
        const bool header =
            !printed_header_ || ((output_options_ & OO_Tabular) && !same_counter_names(run.counters, prev_counters_));
        if (header) {
            printed_header_ = true;
            prev_counters_ = run.counters;
            PrintHeader(run);
        }
        PrintRunData(run);
    }
    GetOutputStream().flush();
}

void ConsoleReporter::PrintHeader(const Run& run) {
    std::string header = format_string("%-*s %13s %15s %12s", static_cast<int>(name_field_width_), "Benchmark", "Time",
                                       "CPU", "Iterations");
    if (!run.counters.empty()) {
        if (output_options_ & OO_Tabular)
            for (const auto& [name, counter] : run.counters) header += format_string(" %10s", name.c_str());
        else
            header += " UserCounters...";
    }
    const std::string rule(header.size(), '-');
    GetOutputStream() << rule << "\n" << header << "\n" << rule << "\n";
}

void ConsoleReporter::PrintRunData(const Run& run) {
    std::ostream& out = GetOutputStream();
    const bool colour = output_options_ & OO_Color;
    put(out, colour, Colour::kGreen,
        format_string("%-*s ", static_cast<int>(name_field_width_), run.benchmark_name().c_str()));
    if (run.error_occurred) {
        put(out, colour, Colour::kRed, "ERROR OCCURRED: '" + run.error_message + "'");
        out << "\n";
        return;
    }
    const bool percentage = run.run_type == Run::RT_Aggregate && run.aggregate_unit == kPercentage;
    if (percentage) {
        put(out, colour, Colour::kGreen,
            format_string("%10.2f %-4s %10.2f %-4s ", run.GetAdjustedRealTime() * 100.0, "%",
                          run.GetAdjustedCPUTime() * 100.0, "%"));
    } else {
        const char* unit = minibench::time_unit_string(run.time_unit);
        put(out, colour, Colour::kYellow,
            format_string("%s %-4s %s %-4s ", format_time(run.GetAdjustedRealTime()).c_str(), unit,
                          format_time(run.GetAdjustedCPUTime()).c_str(), unit));
    }
    put(out, colour, Colour::kCyan, format_string("%10lld", static_cast<long long>(run.iterations)));
    for (const auto& [name, counter] : run.counters) {
        const std::string value = percentage ? format_string("%.2f%%", counter.value * 100.0)
                                             : minibench::HumanReadableNumber(counter.value, counter.oneK);
        const char* unit = !percentage && (counter.flags & Counter::kIsRate) ? "/s" : "";
        if (output_options_ & OO_Tabular) {
            const int width = static_cast<int>(std::max<size_t>(10, name.size()) - std::strlen(unit));
            out << format_string(" %*s%s", width, value.c_str(), unit);
        } else {
            out << " " << name << "=" << value << unit;
        }
    }
    out << "\n";
}

bool JSONReporter::ReportContext(const Context& context) {
    using minibench::JsonEscape;
    std::ostream& out = GetOutputStream();
    out << "{\n  \"context\": {\n";
    out << "    \"date\": \"" << JsonEscape(local_date_time()) << "\",\n";
    out << "    \"host_name\": \"" << JsonEscape(host_name()) << "\",\n";
    out << "    \"executable\": \"" << JsonEscape(context.executable_name) << "\",\n";
    out << "    \"num_cpus\": " << context.num_cpus << ",\n";
    out << "    \"mhz_per_cpu\": " << static_cast<int64_t>(std::lround(context.mhz_per_cpu)) << ",\n";
    out << "    \"cpu_scaling_enabled\": " << (context.cpu_scaling_enabled ? "true" : "false") << ",\n";
    out << "    \"caches\": [";
    for (size_t i = 0; i < context.caches.size(); ++i) {
        const CacheInfo& cache = context.caches[i];
        out << (i ? "," : "") << "\n      {\n"
            << "        \"type\": \"" << JsonEscape(cache.type) << "\",\n"
            << "        \"level\": " << cache.level << ",\n"
            << "        \"size\": " << cache.size << ",\n"
            << "        \"num_sharing\": " << cache.num_sharing << "\n      }";
    }
    out << (context.caches.empty() ? "],\n" : "\n    ],\n");
    out << "    \"load_avg\": [";
    for (size_t i = 0; i < context.load_avg.size(); ++i)
        out << (i ? "," : "") << format_string("%g", context.load_avg[i]);
    out << "],\n";
    out << "    \"library_build_type\": \"" << (kDebugBuild ? "debug" : "release") << "\",\n";
    out << "    \"benchmark_library\": \"minibench\"\n";
    out << "  },\n  \"benchmarks\": [\n";
    return true;
}

void JSONReporter::ReportRuns(const std::vector<Run>& runs) {
    using minibench::JsonEscape;
    std::ostream& out = GetOutputStream();
    for (const Run& run : runs) {
        if (!first_report_) out << ",\n";
        first_report_ = false;
        const char* indent = "      ";
        out << "    {\n";
        out << indent << "\"name\": \"" << JsonEscape(run.benchmark_name()) << "\",\n";
        out << indent << "\"family_index\": " << run.family_index << ",\n";
        out << indent << "\"per_family_instance_index\": " << run.per_family_instance_index << ",\n";
        out << indent << "\"run_name\": \"" << JsonEscape(run.run_name.str()) << "\",\n";
        out << indent << "\"run_type\": \"" << (run.run_type == Run::RT_Aggregate ? "aggregate" : "iteration")
            << "\",\n";
        out << indent << "\"repetitions\": " << run.repetitions << ",\n";
        if (run.run_type == Run::RT_Iteration)
            out << indent << "\"repetition_index\": " << run.repetition_index << ",\n";
        out << indent << "\"threads\": " << run.threads << ",\n";
        if (run.run_type == Run::RT_Aggregate) {
            out << indent << "\"aggregate_name\": \"" << JsonEscape(run.aggregate_name) << "\",\n";
            out << indent << "\"aggregate_unit\": \"" << (run.aggregate_unit == kPercentage ? "percentage" : "time")
                << "\",\n";
        }
        if (run.error_occurred) {
            out << indent << "\"error_occurred\": true,\n";
            out << indent << "\"error_message\": \"" << JsonEscape(run.error_message) << "\"\n";
        } else {
            out << indent << "\"iterations\": " << run.iterations << ",\n";
            out << indent << "\"real_time\": " << json_number(run.GetAdjustedRealTime()) << ",\n";
            out << indent << "\"cpu_time\": " << json_number(run.GetAdjustedCPUTime()) << ",\n";
            out << indent << "\"time_unit\": \"" << minibench::time_unit_string(run.time_unit) << "\"";
            for (const auto& [name, counter] : run.counters)
                out << ",\n" << indent << "\"" << JsonEscape(name) << "\": " << json_number(counter.value);
            out << "\n";
        }
        out << "    }";
    }
    out.flush();
}

void JSONReporter::Finalize() {
    GetOutputStream() << "\n  ]\n}\n";
    GetOutputStream().flush();
}

// ---------------------------------------------------------------------------
// Entry points

void Initialize(int* argc, char** argv) {
    if (*argc > 0 && argv[0] != nullptr) minibench::executable_name() = argv[0];
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        const std::string argument = argv[i];
        if (minibench::ApplyFlag(argument)) continue;
        if (argument == "--help" || argument == "-h") {
            minibench::print_usage(minibench::executable_name().c_str());
            std::exit(0);
        }
        argv[kept++] = argv[i];
    }
    for (int i = kept; i < *argc; ++i) argv[i] = nullptr;
    *argc = std::min(*argc, kept);
}

bool ReportUnrecognizedArguments(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        std::fprintf(stderr, "%s: error: unrecognized command-line flag: %s\n", argv[0], argv[i]);
    return argc > 1;
}

size_t RunSpecifiedBenchmarks() { return RunSpecifiedBenchmarks(nullptr); }

size_t RunSpecifiedBenchmarks(BenchmarkReporter* display_reporter) {
    using internal::Runner;
    const minibench::Flags& f = flags();

    std::string pattern = f.filter;
    const bool negative = !pattern.empty() && pattern[0] == '-';
    if (negative) pattern.erase(0, 1);
    if (pattern.empty() || pattern == "all") pattern = ".";
    regex_t re;
    if (regcomp(&re, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        std::cerr << "Could not compile benchmark re: " << f.filter << "\n";
        return 0;
    }
    std::vector<Runner::Instance> instances;
    for (const auto& b : minibench::registry()) {
        BenchmarkReporter::BenchmarkName name{b->name(), ""};
        if (b->timing() == internal::Benchmark::Timing::kReal) name.time_type = "real_time";
        if (b->timing() == internal::Benchmark::Timing::kManual) name.time_type = "manual_time";
        const bool match = regexec(&re, name.str().c_str(), 0, nullptr, 0) == 0;
        if (match != negative) instances.push_back({b.get(), name, static_cast<int64_t>(instances.size())});
    }
    regfree(&re);
    if (instances.empty()) {
        std::cerr << "Failed to match any benchmarks against regex: " << f.filter << "\n";
        return 0;
    }

    std::unique_ptr<BenchmarkReporter> default_display;
    if (display_reporter == nullptr) {
        if (f.format == "json")
            default_display = std::make_unique<JSONReporter>();
        else
            default_display = std::make_unique<ConsoleReporter>(isatty(STDOUT_FILENO) ? ConsoleReporter::OO_ColorTabular
                                                                                      : ConsoleReporter::OO_Tabular);
        display_reporter = default_display.get();
    }
    if (f.list_tests) {
        for (const Runner::Instance& instance : instances)
            display_reporter->GetOutputStream() << instance.name.str() << "\n";
        return instances.size();
    }

    std::ofstream out_file;
    std::unique_ptr<BenchmarkReporter> file_reporter;
    if (!f.out.empty()) {
        out_file.open(f.out);
        if (!out_file) {
            std::cerr << "invalid file name: '" << f.out << "'\n";
            std::exit(1);
        }
        if (f.out_format == "json")
            file_reporter = std::make_unique<JSONReporter>();
        else
            file_reporter = std::make_unique<ConsoleReporter>(ConsoleReporter::OO_Tabular);
        file_reporter->SetOutputStream(&out_file);
        file_reporter->SetErrorStream(&out_file);
    }

    size_t width = 10;
    for (const Runner::Instance& instance : instances)
        width = std::max(width, instance.name.str().size() + (f.repetitions > 1 ? std::strlen("_median") : 0));
    const BenchmarkReporter::Context context = gather_context(width);
    display_reporter->ReportContext(context);
    if (file_reporter) file_reporter->ReportContext(context);

    // With one repetition there is nothing to aggregate, and the run itself
    // is shown whatever the aggregate flags say.
    const bool repeated = f.repetitions > 1;
    const bool file_aggregates_only = repeated && f.report_aggregates_only;
    const bool display_aggregates_only = repeated && (f.report_aggregates_only || f.display_aggregates_only);
    for (const Runner::Instance& instance : instances) {
        std::vector<BenchmarkReporter::Run> runs;
        IterationCount iterations = f.fixed_iterations > 0 ? f.fixed_iterations : 1;
        for (int64_t repetition = 0; repetition < f.repetitions; ++repetition)
            runs.push_back(Runner::Measure(instance, iterations, repetition));
        const std::vector<BenchmarkReporter::Run> aggregates =
            repeated ? minibench::ComputeAggregates(runs) : std::vector<BenchmarkReporter::Run>();
        auto report = [&](BenchmarkReporter& reporter, bool aggregates_only) {
            std::vector<BenchmarkReporter::Run> shown = aggregates_only ? std::vector<BenchmarkReporter::Run>() : runs;
            shown.insert(shown.end(), aggregates.begin(), aggregates.end());
            if (!shown.empty()) reporter.ReportRuns(shown);
        };
        report(*display_reporter, display_aggregates_only);
        if (file_reporter) report(*file_reporter, file_aggregates_only);
    }
    display_reporter->Finalize();
    if (file_reporter) file_reporter->Finalize();
    return instances.size();
}

void Shutdown() { minibench::ClearRegistry(); }

}  // namespace benchmark
