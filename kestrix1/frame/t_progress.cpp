#include "kestrix1/frame/t_progress.h"

#include <algorithm>
#include <cstddef>

TProgress::TProgress(Callback callback, void *user) : m_callback_p(callback), m_user_p(user) {
    restart();
}

void TProgress::restart() {
    m_fractions.assign(1, 1.0f);
    m_totals.assign(1, 100);
    m_counts.assign(1, 0);
}

void TProgress::start(float fraction) {
    m_fractions.push_back(fraction);
    m_totals.push_back(100);
    m_counts.push_back(0);
}

bool TProgress::prog() {
    if (!m_counts.empty()) ++m_counts.back();
    return progress();
}

bool TProgress::prog(int count, int total) {
    if (!m_counts.empty()) {
        m_counts.back() = count;
        m_totals.back() = total;
    }
    return progress();
}

bool TProgress::progress() {
    if (!m_counts.empty() && m_counts.back() > m_totals.back()) {
        // An overrun stretches the estimate: the bar slows down instead of stopping.
        m_totals.back() = static_cast<int>((m_counts.back() + 1) * 1.2);
    }
    float w = 1.0f;
    float x = 0.0f;
    for (std::size_t i = 0; i < m_counts.size(); ++i) {
        w *= m_fractions[i];
        x += w * (static_cast<float>(m_counts[i]) / static_cast<float>(m_totals[i]));
    }
    // A null user pointer silences the callback on purpose.
    if (m_callback_p == nullptr || m_user_p == nullptr) return true;
    int const thousandths = std::min(static_cast<int>(x * 1000.0f), 1000);
    return m_callback_p(thousandths, m_user_p);
}

bool TProgress::end() {
    if (m_totals.empty()) return true;
    float const fraction = m_fractions.back();
    m_totals.pop_back();
    m_counts.pop_back();
    m_fractions.pop_back();
    if (!m_counts.empty()) {
        m_counts.back() = static_cast<int>(static_cast<float>(m_counts.back()) +
                                           static_cast<float>(m_totals.back()) * fraction);
    }
    return progress();
}

void TProgress::done() {
    restart();
    m_counts.back() = m_totals.back();
    progress();
}

void TProgress::reset() {
    restart();
}
