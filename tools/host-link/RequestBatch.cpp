#include "RequestBatch.h"

#include <filesystem>
#include <fstream>

std::string BatchError::Format(const std::string& path) const
{
    return lineNumber > 0 ? path + ":" + std::to_string(lineNumber) + ": error: " + message : message;
}

bool LoadBatch(const std::string& path, std::vector<BatchEntry>& requests, std::vector<BatchError>& errors)
{
    std::ifstream file(path);
    const bool isDirectory = std::filesystem::is_directory(path);
    if (isDirectory || !file) {
        errors.push_back({0, "cannot read the batch file " + path + (isDirectory ? ": it is a directory" : "")});
        return false;
    }
    std::string baseDir = std::filesystem::path(path).parent_path().string();
    int lineNumber = 0;
    bool good = true;
    for (std::string line; std::getline(file, line);) {
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<std::string> words = SplitWords(line);
        if (words.empty() || words[0][0] == '#') continue;
        BatchEntry entry;
        entry.lineNumber = lineNumber;
        std::string error;
        if (!HostRequest::Parse(line, baseDir, entry.request, error)) {
            errors.push_back({lineNumber, error});
            good = false;
            continue;
        }
        requests.push_back(std::move(entry));
    }
    if (good && requests.empty()) {
        errors.push_back({0, "the batch file " + path + " holds no request"});
        return false;
    }
    return good && !file.bad();
}
