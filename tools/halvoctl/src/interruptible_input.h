#pragma once

#include <array>
#include <memory>
#include <streambuf>

#include "hox/linutils/raii_filedescriptors.h"
#include "interrupt.h"

namespace Hox::Ctl {

/// The bytes of an open file, such as a terminal or a pipe, for which the user may have to wait.
/// Reading throws CtlError with Interrupted when the user ends the command meanwhile; a stream
/// passes that on if its badbit throws.
class InterruptibleInput : public std::streambuf {
public:
    /// The interrupt must outlive this object. The file is not closed. Throws std::system_error if
    /// there can be no waiting.
    InterruptibleInput(int file, Interrupt& interrupt);
    ~InterruptibleInput() override = default;
    InterruptibleInput(const InterruptibleInput&) = delete;
    InterruptibleInput& operator=(const InterruptibleInput&) = delete;

protected:
    int_type underflow() override;

private:
    void waitForBytes() const;

    static constexpr std::size_t blockSize = 65536;

    int m_file;
    LinuxCppUtil::OwnedFileDescriptor m_end;  // can be read as soon as the command is to end
    std::shared_ptr<void> m_request;
    std::array<char, blockSize> m_block{};
};

}  // namespace Hox::Ctl
