// Many inputs into one folder: each result under its input's own name, each
// input enhanced in a worker process of its own (the engine is one per
// process), with one progress line for the whole batch.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qimra::tool {

struct BatchItem {
    std::string input;
    std::string output;
    std::string refusal;  // why the input is not run, when it is not
};

// The output of each input: `folder`/<input's file name>, with `extension`
// in place of its own when not empty. An input is refused when its output
// would overwrite an input (itself included) or an earlier input's output.
std::vector<BatchItem> plan_outputs(const std::vector<std::string>& inputs, const std::string& folder,
                                    const std::string& extension);

// Whether two names are one file (by resolved path, or by inode once it exists).
bool same_file(const std::string& a, const std::string& b);

// Half the cores: each engine already keeps two busy.
int default_jobs();

// Told of each frame written: frames so far, frames expected (-1 unknown).
using FrameCounter = std::function<void(int64_t frames, int64_t expected)>;
// Runs in a worker process: enhances one item, reports its failure on
// standard error and returns the exit code.
using BatchWork = std::function<int(const BatchItem& item, const FrameCounter& counted)>;

// Runs the items, up to `jobs` worker processes at once, relays what they
// report, draws one progress line when `progress`, and ends with a summary
// (written, failed). Returns 1 when any input failed, 3 when an input was
// cut short but all were written, else 0. An interrupt (SIGINT, SIGTERM,
// SIGHUP) is passed on to every worker, which removes its temporary file,
// and the tool then dies of it.
int run_batch(const std::vector<BatchItem>& items, int jobs, bool progress, bool quiet, const BatchWork& work);

}  // namespace qimra::tool
