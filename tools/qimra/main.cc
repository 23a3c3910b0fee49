// qimra: the command-line tool. `enhance` runs every frame of a picture,
// stream or video file through the engine, one input into one output or
// many into a folder; `compare` draws one frame before and after.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>

#include "av_media.h"
#include "batch.h"
#include "cli.h"
#include "compare_image.h"
#include "error.h"
#include "media.h"
#include "output_file.h"
#include "progress.h"
#include "trace.h"

#ifndef QIMRA_VERSION
#define QIMRA_VERSION "unknown"
#endif

namespace qimra::tool {
namespace {

// The engine, created and destroyed with the library's own messages kept
// off the terminal.
class QuietEngine {
public:
    QuietEngine(const StreamInfo& info, const Options& o) : verbose_(o.verbose) {
        LibraryMessages quiet(verbose_);
        engine_.emplace(info.width, info.height, o.gamma, static_cast<Mode>(o.mode), info.format);
    }
    ~QuietEngine() {
        LibraryMessages quiet(verbose_);
        engine_.reset();
    }
    Engine* operator->() { return &*engine_; }

private:
    bool verbose_;
    std::optional<Engine> engine_;
};

void write_text_file(const std::string& path, const std::string& text) {
    OutputFile out(path);
    if (fwrite(text.data(), 1, text.size(), out.stream()) != text.size())
        throw file_error(path, std::string("write failed: ") + strerror(errno));
    out.commit();
}

std::string plural(int64_t n, const char* word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

// Every failure ends as one line on standard error, "qimra: <file>: <problem>";
// among several inputs a problem that names no file is put under its input.
int guarded(const std::function<int()>& work, const std::string& input, const std::string& output) {
    auto report = [&](std::string text, int code) {
        // The C++ layer's messages already begin with "qimra: ".
        if (text.rfind("qimra: ", 0) == 0) text.erase(0, 7);
        const bool named = text.rfind(input + ": ", 0) == 0 || text.rfind(output + ": ", 0) == 0;
        if (!input.empty() && !named) text = input + ": " + text;
        fprintf(stderr, "qimra: %s\n", text.c_str());
        return code;
    };
    try {
        return work();
    } catch (const ToolError& e) {
        return report(e.what(), e.code());
    } catch (const std::bad_alloc&) {
        return report("out of memory", kExitError);
    } catch (const std::exception& e) {
        return report(e.what(), kExitError);
    }
}

// Enhances one input into one output; `counted` hears of every frame
// written (frames so far, frames expected or -1).
int enhance_file(const Options& o, const FrameCounter& counted) {
    if (o.output == "-") reserve_stdout_for_data();
    output_kind(o.output, o.media);  // an unknown output extension fails before any work
    std::unique_ptr<FrameSource> source = open_source(o.input, o.media);
    const StreamInfo& info = source->info();
    if (info.extended() && o.verbose)
        fprintf(stderr,
                "qimra: %s: %dx%d is odd; enhanced at %dx%d with its last column and row repeated, "
                "then cropped back\n",
                o.input == "-" ? "standard input" : o.input.c_str(), info.own_width, info.own_height, info.width,
                info.height);
    OutputFile out(o.output);
    std::unique_ptr<FrameSink> sink = open_sink(out, o.output, o.media, info, source.get());
    QuietEngine engine(info, o);

    std::vector<FrameReport> reports;
    Picture picture;
    int64_t frames = 0;
    while (source->read(picture)) {
        engine->process(picture.view());
        sink->write(picture);
        reports.push_back(engine->report());
        counted(++frames, info.frame_count);
    }
    if (frames == 0) throw file_error(o.input, source->truncation().empty() ? "holds no frames" : source->truncation());
    sink->finish();
    sink.reset();
    out.commit();
    if (!o.trace.empty()) write_text_file(o.trace, trace_csv(reports));
    if (!o.plot.empty())
        write_text_file(o.plot,
                        trace_svg(reports, "qimra enhance " + o.input + " (mode " + std::to_string(o.mode) + ")"));
    if (!source->truncation().empty())
        throw file_error(o.input,
                         source->truncation() + "; the " + plural(frames, "complete frame") + " before it were written",
                         kExitTruncated);
    return kExitOk;
}

int run_enhance(const Options& o) {
    // A progress line for streams and videos; a single picture is done at once.
    Progress progress(!o.media.quiet && isatty(STDERR_FILENO), 0);
    ProgressStatus status;
    const int code = enhance_file(o, [&](int64_t frames, int64_t expected) {
        status.frames = frames;
        status.total_frames = expected;
        status.share = expected > 0 ? static_cast<double>(frames) / static_cast<double>(expected) : -1.0;
        if (expected != 1) progress.update(status);
    });
    progress.finish(status);
    return code;
}

// Several inputs into a folder, each in a worker process of its own.
int run_into_folder(const Options& o) {
    std::error_code error;
    std::filesystem::create_directories(o.output, error);
    if (error) throw file_error(o.output, "cannot make the folder: " + error.message());
    Options each = o;
    // Without --to, a raw input's result keeps its name, and so its kind.
    each.media.raw_output = o.media.size.has_value() && !o.to_given;
    const std::vector<BatchItem> items = plan_outputs(o.inputs, o.output, o.to_given ? o.media.to : "");
    const int jobs = o.jobs > 0 ? o.jobs : default_jobs();
    return run_batch(items, jobs, !o.media.quiet && isatty(STDERR_FILENO), o.media.quiet,
                     [&](const BatchItem& item, const FrameCounter& counted) {
                         each.input = item.input;
                         each.output = item.output;
                         return guarded([&] { return enhance_file(each, counted); }, item.input, item.output);
                     });
}

int run_compare(const Options& o) {
    const size_t dot = o.output.find_last_of('.');
    if (o.output == "-" || dot == std::string::npos || o.output.substr(dot) != ".png")
        throw ToolError(o.output + ": compare writes a .png picture", kExitUsage);
    std::unique_ptr<FrameSource> source = open_source(o.input, o.media);
    QuietEngine engine(source->info(), o);
    Picture before, after;
    int64_t index = 0;
    bool found = false;
    while (source->read(before)) {
        after.reset(before.width, before.height, before.format);
        engine->process(before.view(), after.view());
        if (index == o.frame) {
            found = true;
            break;
        }
        ++index;
    }
    if (!found)
        throw file_error(o.input, "has " + plural(index, "frame") + "; --frame " + std::to_string(o.frame) +
                                      " is past its end" +
                                      (source->truncation().empty() ? "" : " (" + source->truncation() + ")"));
    const Canvas canvas = compose_compare(before, after, engine->report());
    write_text_file(o.output, [&] {
        const std::vector<uint8_t> png = encode_png(canvas.rgb.data(), canvas.width, canvas.height);
        return std::string(png.begin(), png.end());
    }());
    return kExitOk;
}

int run(int argc, const char* const* argv) {
    const Options o = parse_command_line(argc, argv);
    if (o.version) {
        printf("qimra %s\n", QIMRA_VERSION);
        return kExitOk;
    }
    if (o.help) {
        fputs(help_text(o.command), stdout);
        return kExitOk;
    }
    set_av_log_level(o.verbose);
    if (o.command == "compare") return run_compare(o);
    return o.into_folder ? run_into_folder(o) : run_enhance(o);
}

}  // namespace
}  // namespace qimra::tool

int main(int argc, char** argv) {
    // A closed pipe on standard output is reported as a write error.
    signal(SIGPIPE, SIG_IGN);
    using namespace qimra::tool;
    return guarded([&] { return run(argc, argv); }, "", "");
}
