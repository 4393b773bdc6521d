#pragma once

#include <string>
#include <string_view>

namespace Hox::ObserverTree {

/// An open file of the node data store, closed with the object. Errors of reading, writing and
/// closing are not reported, as with a stream that nobody asks for its state.
class NodeFile {
public:
    /// Opens the file for writing, made if missing and emptied otherwise.
    static NodeFile create(const std::string& path);

    /// Opens the file for reading.
    static NodeFile open(const std::string& path);

    ~NodeFile();
    NodeFile(NodeFile&& other) noexcept;
    NodeFile& operator=(NodeFile&& other) noexcept;
    NodeFile(const NodeFile&) = delete;
    NodeFile& operator=(const NodeFile&) = delete;

    /// Whether opening has succeeded. Otherwise the file reads as empty and takes no text.
    bool isOpen() const { return m_descriptor >= 0; }

    /// Appends the text, as far as there is room.
    void write(std::string_view text) const;

    /// The content from here to the end.
    std::string readAll() const;

private:
    explicit NodeFile(int descriptor) : m_descriptor(descriptor) {}

    int m_descriptor;
};

}  // namespace Hox::ObserverTree
