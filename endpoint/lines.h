// Cuts a stream of chunks from a pipe into lines.
#pragma once

#include <string>
#include <vector>

namespace endpoint {

class LineSplitter {
public:
    // A line longer than this is passed on in pieces of this size, so that
    // a child writing without line ends cannot make us hold unbounded text.
    static constexpr size_t kMaxLine = 65536;

    // The lines completed by this chunk, without their "\n" (or "\r\n").
    std::vector<std::string> feed(const std::string& chunk);
    // At end of file: the unterminated rest, if any.
    std::vector<std::string> finish();

private:
    std::string m_partial;
};

}  // namespace endpoint
