// See input_files.h. Files are read without a buffer of their own: readers take large pieces.
#include "input_files.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace memtrack {

namespace {

std::uint64_t size_of_file(const std::string& name) {
    std::error_code error;
    const auto size = std::filesystem::file_size(name, error);
    return error ? 0 : size;
}

class SystemFile : public InputFile {
public:
    SystemFile(std::FILE* file, std::uint64_t size) : file_(file), size_(size) {
        std::setvbuf(file, nullptr, _IONBF, 0);
    }
    std::uint64_t size() const override { return size_; }
    std::size_t read(void* data, std::size_t bytes) override {
        std::size_t got = 0;
        do {
            std::clearerr(file_.get());
            got += std::fread(static_cast<char*>(data) + got, 1, bytes - got, file_.get());
        } while (std::ferror(file_.get()) != 0 && errno == EINTR);
        return got;
    }
    bool go_to(std::uint64_t offset) override {
        return std::fseek(file_.get(), static_cast<long>(offset), SEEK_SET) == 0;
    }

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Close> file_;
    std::uint64_t size_;
};

class SystemFiles : public InputFiles {
public:
    std::unique_ptr<InputFile> open(const std::string& name) const override {
        std::error_code error;
        if (!std::filesystem::is_regular_file(name, error)) { // a pipe would be waited for
            return nullptr;
        }
        std::FILE* const file = std::fopen(name.c_str(), "rb");
        return file == nullptr ? nullptr : std::make_unique<SystemFile>(file, size_of_file(name));
    }
    std::uint64_t size(const std::string& name) const override { return size_of_file(name); }
    std::vector<std::string> endings(const std::string& start) const override {
        const std::filesystem::path path = start;
        const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
        const std::string beginning = path.filename().string();
        std::vector<std::string> found;
        std::error_code error;
        for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
             entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (name.starts_with(beginning)) {
                found.push_back(name.substr(beginning.size()));
            }
        }
        return found;
    }
};

const InputFiles* others = nullptr;

} // namespace

const InputFiles& input_files() {
    static const SystemFiles files;
    if (others != nullptr) {
        return *others;
    }
    return files;
}

void set_input_files(const InputFiles* files) {
    others = files;
}

} // namespace memtrack
