#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Hox::Benchmarks {

/// A folder of this run, removed with the object.
class Folder {
public:
    /// Throws std::runtime_error where it cannot be made.
    explicit Folder(const std::filesystem::path& parent);
    ~Folder();
    Folder(const Folder&) = delete;
    Folder(Folder&&) = delete;
    Folder& operator=(const Folder&) = delete;
    Folder& operator=(Folder&&) = delete;

    std::filesystem::path operator/(const char* name) const;

private:
    std::string m_path;
};

/// One line of a table: our work against that of a program that does only what is needed, in turns.
/// Times are milliseconds of the thread's processor time, user and system.
class Line {
public:
    using Work = std::function<void()>;

    /// The aim is the highest ratio that will do.
    Line(std::string title, double aim) : m_title(std::move(title)), m_aim(aim) {}

    /// Takes the times of both; theirs goes first in every other call.
    void measure(const Work& ours, const Work& theirs);

    /// Prints the medians.
    void print() const;

    static void printHeading(const char* ours, const char* theirs);

private:
    std::string m_title;
    double m_aim;
    std::vector<double> m_ours;
    std::vector<double> m_theirs;
    std::vector<double> m_ratios;
};

/// Throws std::runtime_error with the text.
void require(bool condition, const char* what);

}  // namespace Hox::Benchmarks
