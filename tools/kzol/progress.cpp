#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace kzol {

namespace {

constexpr std::chrono::milliseconds c_drawInterval{200};

}  // namespace

Progress::Progress(std::size_t total, bool wanted)
    : m_shown(wanted && ::isatty(STDERR_FILENO) == 1), m_total(total), m_start(std::chrono::steady_clock::now()),
      m_lastDraw(m_start - c_drawInterval)  // the first file done is drawn at once
{
}

Progress::~Progress()
{
    finish();
}

void Progress::setTotal(std::size_t total)
{
    m_total = total;
}

void Progress::advance(std::size_t count)
{
    const std::size_t done = m_done += count;
    if (!m_shown) {
        return;
    }
    // A thread that finds another drawing leaves the line to it.
    const std::unique_lock<std::mutex> lock(m_drawing, std::try_to_lock);
    if (!lock.owns_lock() || m_finished) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastDraw < c_drawInterval) {
        return;
    }
    m_lastDraw = now;
    draw(done, false);
}

void Progress::clear()
{
    if (!m_shown) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_drawing);
    if (m_drawn && !m_finished) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        m_lastDraw = std::chrono::steady_clock::now() - c_drawInterval;
    }
}

void Progress::finish()
{
    if (!m_shown) {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_drawing);
    if (m_finished) {
        return;
    }
    m_finished = true;
    if (m_drawn) {
        draw(m_done, true);
    }
}

void Progress::draw(std::size_t done, bool final)
{
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    const std::size_t total = m_total;
    char line[160];
    if (total >= done && total > 0) {
        const double left = rate > 0 ? static_cast<double>(total - done) / rate : 0.0;
        const auto leftSeconds = static_cast<unsigned long>(left + 0.5);
        std::snprintf(line, sizeof(line), "\r%zu/%zu files, %.0f files/s, %lu:%02lu left\033[K", done, total, rate,
                      leftSeconds / 60, leftSeconds % 60);
    } else {
        std::snprintf(line, sizeof(line), "\r%zu files, %.0f files/s\033[K", done, rate);
    }
    std::fputs(line, stderr);
    if (final) {
        std::fputs("\n", stderr);
    }
    std::fflush(stderr);
    m_drawn = true;
}

}  // namespace kzol
