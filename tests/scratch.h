// Files: reading one, and a directory of a test's own, which goes with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using std::string;

/// All of the file, or "(none)" when there is none.
inline string readFile(const string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return stream.is_open() ? text.str() : "(none)";
}

struct Scratch {
    ~Scratch() {
        std::filesystem::remove_all(directory);
    }
    string path(const string& file) const {
        return directory + "/" + file;
    }
    string read(const string& file) const {
        return readFile(path(file));
    }
    void write(const string& file, const string& bytes) const {
        std::ofstream(path(file), std::ios::binary) << bytes;
    }

    char name[20] = "/tmp/kxtest.XXXXXX";
    const string directory = mkdtemp(name);
};
