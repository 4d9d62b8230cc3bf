#include "lines.h"

namespace endpoint {

namespace {

void push_line(std::vector<std::string>& out, std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out.push_back(std::move(line));
}

}  // namespace

std::vector<std::string> LineSplitter::feed(const std::string& chunk) {
    std::vector<std::string> lines;
    for (char c : chunk) {
        if (c == '\n') {
            push_line(lines, std::move(m_partial));
            m_partial.clear();
        } else {
            m_partial += c;
            if (m_partial.size() >= kMaxLine) {
                lines.push_back(std::move(m_partial));
                m_partial.clear();
            }
        }
    }
    return lines;
}

std::vector<std::string> LineSplitter::finish() {
    std::vector<std::string> lines;
    if (!m_partial.empty()) push_line(lines, std::move(m_partial));
    m_partial.clear();
    return lines;
}

}  // namespace endpoint
