#include "batch.h"

#include "cli_common.h"
#include "progressbar.h"

#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

namespace KEL::cli {

namespace {

thread_local nlohmann::ordered_json* t_summary = nullptr;

// The first line a failure printed, without the "kel: " in front.
std::string first_error_line(const Report& report)
{
    for (const Report::Chunk& c : report.chunks) {
        if (!c.error)
            continue;
        size_t start = 0;
        while (start < c.text.size()) {
            const size_t end = c.text.find('\n', start);
            std::string line = c.text.substr(start, end == std::string::npos ? std::string::npos : end - start);
            start = end == std::string::npos ? c.text.size() : end + 1;
            if (line.compare(0, 5, "kel: ") == 0 && line.compare(0, 14, "kel: warning: ") != 0)
                return line.substr(5);
        }
    }
    return "failed";
}

bool mentions(const Report& report, const std::string& file)
{
    for (const Report::Chunk& c : report.chunks)
        if (c.error && c.text.find(file) != std::string::npos)
            return true;
    return false;
}

// What the written file holds, read back from it.
void describe_output(nlohmann::ordered_json& summary)
{
    const auto output = summary.find("output");
    if (output == summary.end() || !output->is_string())
        return;
    _kel_clip_info_t i{};
    if (kel_file_info(output->get<std::string>().c_str(), &i, nullptr) != 0)
        return;
    summary["format"] = format_name(i.format);
    summary["channels"] = i.channels;
    summary["sample_rate"] = i.sample_rate;
    summary["bits_per_sample"] = i.bits_per_sample;
    summary["duration"] = i.duration;
}

} // namespace

Batch::Batch(int jobs, bool json) : jobs_(static_cast<unsigned>(jobs)), json_(json)
{
    if (jobs_ == 0)
        jobs_ = std::max(1u, std::thread::hardware_concurrency());
}

nlohmann::ordered_json& Batch::summary()
{
    thread_local nlohmann::ordered_json scratch;
    return t_summary != nullptr ? *t_summary : scratch;
}

void Batch::work(size_t index, const std::function<void(size_t)>& job)
{
    Slot& slot = slots_[index];
    Console::capture(&slot.report);
    t_summary = &slot.summary;
    try {
        job(index);
        describe_output(slot.summary);
    } catch (const Exit& e) {
        (e.status == kExitCancelled ? slot.cancelled : slot.failed) = true;
    } catch (const std::bad_alloc&) {
        Console::err("kel: %s: out of memory\n", files_[index].c_str());
        slot.failed = true;
    } catch (const std::exception& e) {
        // Nothing else should reach here; it still ends only this file.
        Console::err("kel: %s: %s\n", files_[index].c_str(), e.what());
        slot.failed = true;
    }
    if (ProgressBar::interrupted() && slot.failed)
        slot.cancelled = true; // a failure on the way out of a cancellation
    t_summary = nullptr;
    Console::capture(nullptr);
}

size_t Batch::run(const std::vector<std::string>& files, const std::function<void(size_t)>& job)
{
    files_ = files;
    slots_.assign(files.size(), Slot{});
    for (size_t i = 0; i < files.size(); ++i)
        slots_[i].summary["file"] = files[i];
    if (files.size() == 1 && !json_) {
        // One file: printed as it goes, with the steps' own progress bars.
        t_summary = &slots_[0].summary;
        try {
            job(0);
        } catch (const Exit& e) {
            t_summary = nullptr;
            if (e.status == kExitCancelled)
                throw;
            return 1;
        }
        t_summary = nullptr;
        return 0;
    }

    std::mutex mutex;
    std::condition_variable changed;
    size_t next = 0;
    size_t running = 0;
    ProgressBar bar("batch");
    ProgressBar::set_drawing(false);
    auto worker = [&] {
        for (;;) {
            size_t index;
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (next >= files.size() || ProgressBar::interrupted())
                    break;
                index = next++;
            }
            work(index, job);
            std::lock_guard<std::mutex> lock(mutex);
            slots_[index].done = true;
            changed.notify_all();
            // A test's Ctrl-C right after a file, before the next starts.
            ProgressBar::interrupt_point("files");
        }
        std::lock_guard<std::mutex> lock(mutex);
        --running;
        changed.notify_all();
    };
    // `running` is the workers' to count down once the first one starts.
    const size_t count = std::min<size_t>(jobs_, files.size());
    running = count;
    std::vector<std::thread> threads;
    for (size_t t = 0; t < count; ++t)
        threads.emplace_back(worker);

    // Reports are printed here only, in input order, each as one block;
    // the bar is cleared before and redrawn after.
    size_t failed = 0;
    size_t printed = 0;
    while (printed < files.size()) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return slots_[printed].done || running == 0; });
        if (!slots_[printed].done)
            break; // stopped before this file started
        lock.unlock();
        Slot& slot = slots_[printed];
        bar.finish();
        if (!slot.cancelled) {
            Console::print(slot.report, !json_);
            if (slot.failed && !mentions(slot.report, files[printed]))
                Console::err("kel: %s: failed\n", files[printed].c_str());
        }
        failed += slot.failed && !slot.cancelled ? 1 : 0;
        ++printed;
        bar.show(100.0f * static_cast<float>(printed) / static_cast<float>(files.size()));
    }
    for (std::thread& t : threads)
        t.join();
    bar.finish();
    ProgressBar::set_drawing(true);
    if (ProgressBar::interrupted())
        fail_cancelled();
    return failed;
}

int Batch::finish(size_t failed) const
{
    if (json_) {
        std::vector<nlohmann::ordered_json> objects;
        for (const Slot& slot : slots_) {
            objects.push_back(slot.summary);
            if (slot.failed) {
                nlohmann::ordered_json& o = objects.back();
                o.erase("output");
                o["error"] = {{"code", slot.report.code != 0 ? nlohmann::ordered_json(code_text(slot.report.code))
                                                            : nlohmann::ordered_json(nullptr)},
                              {"message", first_error_line(slot.report)}};
            }
        }
        print_json_array(objects);
    }
    if (failed > 0 && slots_.size() > 1)
        Console::err("kel: %zu of %zu files failed\n", failed, slots_.size());
    return failed > 0 ? kExitFailure : kExitOk;
}

} // namespace KEL::cli
