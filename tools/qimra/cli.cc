#include "cli.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "batch.h"
#include "error.h"
#include "media.h"
#include "raw_yuv.h"

namespace qimra::tool {

namespace {

const char kMainHelp[] =
    "usage: qimra COMMAND [options]\n"
    "\n"
    "Enhances dark and backlit video frames and pictures.\n"
    "\n"
    "commands:\n"
    "  enhance   enhance a picture, a raw or Y4M stream, or a video file\n"
    "  compare   draw one frame before and after, with its tone curve, into a .png\n"
    "\n"
    "Run 'qimra COMMAND --help' for the options of a command.\n";

const char kEnhanceHelp[] =
    "usage: qimra enhance INPUT -o OUTPUT [options]\n"
    "       qimra enhance INPUT... -o FOLDER/ [-j N] [options]\n"
    "\n"
    "Enhances every frame of INPUT into OUTPUT. Both are told apart by extension:\n"
    "  .y4m                 YUV4MPEG2, 8-bit 4:2:0\n"
    "  .yuv                 raw 4:2:0 frames (needs --size; --format picks the layout)\n"
    "  .i420 .yv12 .nv12 .nv21   raw 4:2:0 frames in that layout (needs --size)\n"
    "  .png .jpg            a still picture\n"
    "  .mp4 .mkv .mov ...   a video file; audio is copied through untouched;\n"
    "                       video is written as H.264 (libx264) where the container takes it\n"
    "INPUT '-' reads Y4M (or raw, with --size) from standard input; OUTPUT '-' writes\n"
    "Y4M (or raw, with --to yuv) to standard output. With --size, any INPUT is raw.\n"
    "\n"
    "Several inputs, or -o naming a folder (existing, or ending in '/'), write each\n"
    "result into the folder under its input's own name (--to EXT changes the\n"
    "extension), never over an input. Each input runs in its own process, N at a\n"
    "time; a failed input is reported and the others are still written.\n"
    "\n"
    "Pictures and videos of odd size are enhanced at the next even size (last column\n"
    "and row repeated) and cropped back; Y4M and raw frames must be even.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE     where to write (required): a file, - or a FOLDER/\n"
    "  --mode 0|1|2          0 always enhance with a fixed tone curve; 1 analyse and\n"
    "                        mark the decision as a square in the middle of the frame;\n"
    "                        2 enhance when the scene calls for it (default)\n"
    "  --gamma G             gamma of the tone curve, 0 < G <= 4 (default 0.5; below 1\n"
    "                        lifts the shadows); in mode 2 the lowest gamma allowed\n"
    "  --size WxH            frame size of raw input; any input is then read as raw\n"
    "  --format F            layout of raw input and output, over what a name says:\n"
    "                        i420 (default), yv12, nv12, nv21\n"
    "  --fps N[/D]           frame rate of raw input and of pictures (default 25)\n"
    "  --to y4m|yuv|LAYOUT   what '-o -' writes (default y4m; yuv or a layout: raw)\n"
    "  --to EXT              into a folder: the extension (kind) of every result\n"
    "  -j, --jobs N          inputs enhanced at once into a folder (default: half the\n"
    "                        cores, as each engine runs on two)\n"
    "  --trace FILE.csv      one row per frame: decision, mid, gamma, top level, ...\n"
    "  --plot FILE.svg       the same over the frames, as a plot\n"
    "  --quiet               no progress bar or notes\n"
    "  --verbose             show the library's and FFmpeg's own messages\n"
    "  -h, --help            this help\n"
    "\n"
    "exit status: 0 done; 1 bad input or failure (no output left behind; into a\n"
    "folder: any input failed); 2 bad command line; 3 the input ends inside a frame\n"
    "(every complete frame written)\n";

const char kCompareHelp[] =
    "usage: qimra compare INPUT -o FILE.png [options]\n"
    "\n"
    "Draws one frame of INPUT before and after enhancement side by side, with the\n"
    "frame's tone curve beside them. Frames before it are enhanced too, so that an\n"
    "adaptive decision has the history it would have in a stream.\n"
    "\n"
    "options:\n"
    "  -o, --output FILE.png  where to write (required)\n"
    "  --frame N              the frame to show, counted from 0 (default 0)\n"
    "  --mode 0|1|2           as for enhance (default 2)\n"
    "  --gamma G              as for enhance (default 0.5)\n"
    "  --size WxH, --format F, --fps N[/D]   for raw input, as for enhance\n"
    "  --verbose              show the library's and FFmpeg's own messages\n"
    "  -h, --help             this help\n";

[[noreturn]] void usage(const std::string& message) { throw ToolError(message, kExitUsage); }

long long parse_integer(const std::string& option, const std::string& text, long long lo, long long hi) {
    char* end = nullptr;
    errno = 0;
    const long long v = strtoll(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || v < lo || v > hi)
        usage(option + " '" + text + "' is not a whole number from " + std::to_string(lo) + " to " +
              std::to_string(hi));
    return v;
}

Rational parse_rate(const std::string& text) {
    const size_t slash = text.find('/');
    char* end = nullptr;
    if (slash == std::string::npos) {
        errno = 0;
        const double v = strtod(text.c_str(), &end);
        if (!text.empty() && errno == 0 && *end == '\0' && v > 0.0 && v <= 1000.0) {
            if (v == std::floor(v)) return {static_cast<int>(v), 1};
            return {static_cast<int>(std::lround(v * 1000.0)), 1000};
        }
    } else {
        const long long n = strtoll(text.substr(0, slash).c_str(), &end, 10);
        const bool n_ok = *end == '\0' && slash > 0;
        const long long d = strtoll(text.substr(slash + 1).c_str(), &end, 10);
        if (n_ok && *end == '\0' && n > 0 && d > 0 && n <= 1000000 && d <= 1000000 && n / d <= 1000)
            return {static_cast<int>(n), static_cast<int>(d)};
    }
    usage("--fps '" + text + "' is not a frame rate; write it as 25, 29.97 or 30000/1001");
}

bool is_folder(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Where an enhance writes: one file, standard output, or a folder.
void check_output(Options& o) {
    const bool several = o.inputs.size() > 1;
    o.into_folder =
        o.command == "enhance" && o.output != "-" && (several || o.output.back() == '/' || is_folder(o.output));
    if (!o.into_folder) {
        if (several) usage("more than one input writes into a folder; give -o FOLDER/");
        if (o.to_given && o.output != "-")
            usage("--to is for '-o -' and folders; a file's extension tells what to write");
        if (o.to_given && o.media.to != "y4m" && o.media.to != "yuv" && !layout_named(o.media.to))
            usage("--to '" + o.media.to + "' is unknown for '-o -'; use y4m, yuv, i420, yv12, nv12 or nv21");
        if (o.output != "-" && o.input != "-" && same_file(o.output, o.input))
            usage(o.output + ": the output would overwrite the input");
        if (o.jobs > 0) usage("-j is for several inputs into a folder");
        return;
    }
    struct stat st {};
    if (stat(o.output.c_str(), &st) == 0 && !S_ISDIR(st.st_mode))
        usage(o.output + " is a file; several inputs are written into a folder: -o FOLDER/");
    for (const std::string& in : o.inputs)
        if (in == "-") usage("standard input has no name to write under in a folder; give it as a file");
    if (several && (!o.trace.empty() || !o.plot.empty()))
        usage("--trace and --plot follow one input; give them one file at a time");
    if (o.to_given) {
        const std::string to = o.media.to;
        if (!to.empty() && to[0] == '.') o.media.to.erase(0, 1);
        try {
            if (o.media.to.empty() || to.find('/') != std::string::npos) throw ToolError("");
            output_kind("x." + o.media.to, o.media);
        } catch (const ToolError&) {
            usage("--to '" + to +
                  "' is not a kind qimra writes; use y4m, yuv, i420, yv12, nv12, nv21, png, jpg "
                  "or a video extension (mp4, mkv, ...)");
        }
    }
}

}  // namespace

const char* help_text(const std::string& command) {
    if (command == "enhance") return kEnhanceHelp;
    if (command == "compare") return kCompareHelp;
    return kMainHelp;
}

Options parse_command_line(int argc, const char* const* argv) {
    Options o;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) usage("no command given; run 'qimra --help'");
    const std::string first = args[0];
    if (first == "-h" || first == "--help" || first == "help") {
        o.help = true;
        if (args.size() > 1) o.command = args[1];
        return o;
    }
    if (first == "--version") {
        o.version = true;
        return o;
    }
    if (first != "enhance" && first != "compare")
        usage("unknown command '" + first + "'; the commands are enhance and compare");
    o.command = first;
    const bool compare = o.command == "compare";

    for (size_t i = 1; i < args.size(); ++i) {
        std::string arg = args[i];
        std::string value;
        bool inline_value = false;
        if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
            value = arg.substr(arg.find('=') + 1);
            arg = arg.substr(0, arg.find('='));
            inline_value = true;
        }
        auto take_value = [&]() -> std::string {
            if (inline_value) return value;
            if (i + 1 >= args.size()) usage(arg + " needs a value");
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            o.help = true;
        } else if (arg == "-o" || arg == "--output") {
            o.output = take_value();
        } else if (arg == "--mode") {
            o.mode = static_cast<int>(parse_integer(arg, take_value(), 0, 2));
        } else if (arg == "--gamma") {
            const std::string v = take_value();
            char* end = nullptr;
            const float g = strtof(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !std::isfinite(g) || g <= 0.0f || g > 4.0f)
                usage("--gamma '" + v + "' is not a number greater than 0 and at most 4");
            o.gamma = g;
        } else if (arg == "--size") {
            o.media.size = parse_size(take_value());
        } else if (arg == "--format") {
            o.media.raw_format = parse_format(take_value());
        } else if (arg == "--fps") {
            o.media.fps = parse_rate(take_value());
        } else if (arg == "--frame" && compare) {
            o.frame = parse_integer(arg, take_value(), 0, 100000000);
        } else if (arg == "--to" && !compare) {
            o.media.to = take_value();
            o.to_given = true;
        } else if ((arg == "-j" || arg == "--jobs") && !compare) {
            o.jobs = static_cast<int>(parse_integer(arg, take_value(), 1, 256));
        } else if (arg.rfind("-j", 0) == 0 && arg.size() > 2 && !compare) {
            o.jobs = static_cast<int>(parse_integer("-j", arg.substr(2), 1, 256));
        } else if (arg == "--trace" && !compare) {
            o.trace = take_value();
        } else if (arg == "--plot" && !compare) {
            o.plot = take_value();
        } else if (arg == "--quiet" && !compare) {
            o.media.quiet = true;
        } else if (arg == "--verbose") {
            o.verbose = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            usage("unknown option '" + arg + "' for " + o.command + "; run 'qimra " + o.command + " --help'");
        } else if (o.inputs.empty() || !compare) {
            o.inputs.push_back(arg);
        } else {
            usage("more than one input ('" + o.inputs[0] + "' and '" + arg + "'); compare takes one");
        }
    }
    if (o.help) return o;
    if (o.inputs.empty()) usage("no input given; run 'qimra " + o.command + " --help'");
    o.input = o.inputs[0];
    if (o.output.empty())
        usage(o.inputs.size() > 1 ? "no output given; add -o FOLDER/" : "no output given; add -o FILE");
    check_output(o);
    return o;
}

}  // namespace qimra::tool
