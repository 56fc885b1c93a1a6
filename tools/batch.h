// Several input files worked on at once: each file on one thread from
// start to end (the library wants a clip used by one thread at a time;
// different clips on different threads are fine), at most `jobs` files at a
// time. What a file's work prints is held and printed as one block when it
// is done, in input order, under one overall progress bar. A file that
// fails is reported and the others go on; Ctrl-C starts no new file,
// cancels the running ones (their partial outputs go) and keeps the
// finished ones.
#ifndef KEL_TOOLS_BATCH_H
#define KEL_TOOLS_BATCH_H

#include "console.h"

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace KEL::cli {

class Batch {
public:
    // jobs 0 means one per processor core. With json, what the files'
    // work prints on stdout is dropped (stdout carries the summaries).
    Batch(int jobs, bool json);

    // Calls job(i) for every input i; a job reports failure by throwing
    // Exit (after printing why). One file alone runs on the calling thread
    // and prints as it goes. Returns the number of files that failed;
    // throws Exit{kExitCancelled} after a cancellation, once the finished
    // files' reports are printed.
    size_t run(const std::vector<std::string>& files, const std::function<void(size_t)>& job);

    // The summary object of the file the calling thread works on; a job
    // adds its figures ("output", "gain_db", ...). Outside a job, a scratch
    // object.
    static nlohmann::ordered_json& summary();

    // The writing commands' end: with json, the summaries as one array
    // (a file that failed has "error" {code, message}); after failures,
    // "kel: N of M files failed" when there were several. Returns the exit
    // status.
    int finish(size_t failed) const;

private:
    struct Slot {
        Report report;
        nlohmann::ordered_json summary;
        bool done = false;
        bool failed = false;
        bool cancelled = false;
    };

    void work(size_t index, const std::function<void(size_t)>& job);

    unsigned jobs_;
    bool json_;
    std::vector<std::string> files_;
    std::vector<Slot> slots_;
};

} // namespace KEL::cli

#endif
