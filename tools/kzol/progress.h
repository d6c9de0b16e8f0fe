// Progress of a command over many files, on standard error while it is a
// terminal: the count done (of the total when known), the rate and the time
// left. Any thread may advance it; at most a few lines a second are drawn,
// each over the last.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>

namespace kzol {

class Progress {
public:
    // `total` 0: not known (no time left is shown). `wanted` false (as for -q)
    // keeps it silent; so does a standard error that is not a terminal.
    Progress(std::size_t total, bool wanted = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Whether anything is drawn at all.
    [[nodiscard]] bool shown() const { return m_shown; }
    // `count` more files done.
    void advance(std::size_t count = 1);
    // The total, once it becomes known (or grows).
    void setTotal(std::size_t total);
    // Takes the line off the terminal before other output; the next advance
    // draws it again.
    void clear();
    // Draws the final count and ends the line; also done by the destructor.
    void finish();

private:
    void draw(std::size_t done, bool final);

    const bool m_shown;
    std::atomic<std::size_t> m_total;
    std::atomic<std::size_t> m_done{0};
    std::mutex m_drawing;
    bool m_finished = false;
    bool m_drawn = false;
    const std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastDraw;
};

}  // namespace kzol
