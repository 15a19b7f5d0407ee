// A directory of a test's own, which goes with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

struct Scratch {
    ~Scratch() {
        std::filesystem::remove_all(directory);
    }

    std::string path(const std::string& file) const {
        return directory + "/" + file;
    }

    void write(const std::string& file, const std::string& bytes) const {
        std::ofstream(path(file), std::ios::binary) << bytes;
    }

    /// "(none)" when there is no such file.
    std::string read(const std::string& file) const {
        std::ifstream stream(path(file), std::ios::binary);
        return stream ? std::string(std::istreambuf_iterator(stream), {}) : "(none)";
    }

    char name[20] = "/tmp/kxtest.XXXXXX";
    const std::string directory = mkdtemp(name);
};
