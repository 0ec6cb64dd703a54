// Buffered writing with every result checked, so that a full disk is noticed.
#include "output_file.h"

#include "input_error.h"
#include "system.h"

#include <cerrno>
#include <cstring>

namespace elasticity {

namespace {
constexpr std::size_t buffer_size = std::size_t{1} << 18;
}

OutputFile::OutputFile(const String& file) : file_(file), target_(file), written_to_(file) {
    if (system::is_folder(file.c_str()))
        throw InputError(file_, 0, {"cannot be written: it is a folder"});
    if (system::is_replaceable(file.c_str())) {
        // A rename onto a link would put the file in the link's place.
        target_ = system::without_links(file);
        written_to_ = target_ + ".part";
    }
    buffer_.reserve(buffer_size);
    stream_ = std::fopen(written_to_.c_str(), "wb");
    if (stream_ == nullptr)
        fail(std::strerror(errno));
    std::setvbuf(stream_, nullptr, _IONBF, 0);
}

OutputFile::~OutputFile() {
    if (stream_ == nullptr)
        return;
    std::fclose(stream_);
    if (written_to_ != target_)
        std::remove(written_to_.c_str());
}

void OutputFile::write(std::initializer_list<std::string_view> parts) {
    for (const std::string_view part : parts) {
        if (buffer_.size() + part.size() > buffer_size)
            flush();
        buffer_.insert(buffer_.end(), part.begin(), part.end());
    }
}

void OutputFile::flush() {
    for (std::size_t written = 0; written < buffer_.size();) {
        const std::size_t rest = buffer_.size() - written;
        const std::size_t step = std::fwrite(buffer_.data() + written, 1, rest, stream_);
        written += step;
        if (step < rest) {
            if (errno != EINTR) // a signal that somebody handles
                fail(std::strerror(errno));
            std::clearerr(stream_);
        }
    }
    buffer_.clear();
}

void OutputFile::commit() {
    flush();
    std::FILE* stream = stream_;
    stream_ = nullptr;
    const bool closed = std::fclose(stream) == 0;
    const int reason = errno;
    if (written_to_ == target_) {
        if (!closed)
            fail(std::strerror(reason));
        return;
    }
    if (!closed || !system::replace_file(written_to_.c_str(), target_.c_str())) {
        std::remove(written_to_.c_str());
        fail(closed ? "the finished file cannot take its name" : std::strerror(reason));
    }
}

void OutputFile::fail(std::string_view what) const {
    throw InputError(file_, 0, {"cannot be written: ", what});
}

} // namespace elasticity
