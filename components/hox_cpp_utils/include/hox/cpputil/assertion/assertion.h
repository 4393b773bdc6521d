#pragma once

#include <functional>
#include <string>

namespace Hox::CppUtil {

/// Checks what must be true by construction, in released code too.
///
/// The setters are for start-up, before other threads run; assertTrue may then be called from any
/// thread, under any lock.
class Assertion {
public:
    using OutputHandler = std::function<void(const std::string&)>;
    using StacktraceProvider = std::function<std::string()>;

    /// Whether a failed assertion ends the process by abort(). The default is true.
    void setAbortOnFailure(bool abortOnFailure);

    /// Receives each report. An empty handler means standard error.
    void setOutputHandler(OutputHandler outputHandler);

    /// Provides the stack trace of the second report. Empty means that none is available.
    void setStacktraceProvider(StacktraceProvider stacktraceProvider);

    /// Does nothing if the condition is true. Otherwise writes two reports and then aborts or
    /// returns to the caller.
    void assertTrue(bool condition, const std::string& expression, const std::string& message,
                    const std::string& file, int line) const;

    /// The same without a message.
    void assertTrue(bool condition, const std::string& expression, const std::string& file,
                    int line) const;

private:
    void report(const std::string& text) const;

    bool m_abortOnFailure = true;
    OutputHandler m_outputHandler;
    StacktraceProvider m_stacktraceProvider;
};

/// The process-wide checker, created on first use. Callable from any thread.
Assertion& getAssertion();

}  // namespace Hox::CppUtil

/// Fails with the condition's source text. A macro, because only a macro sees that text. The texts
/// are built on failure only.
#define HOX_ASSERT(...)         \
    ((__VA_ARGS__)              \
         ? static_cast<void>(0) \
         : ::Hox::CppUtil::getAssertion().assertTrue(false, #__VA_ARGS__, __FILE__, __LINE__))

/// The same with a message after the condition's text.
#define HOX_ASSERT_MSG(condition, message)                                                         \
    ((condition) ? static_cast<void>(0)                                                            \
                 : ::Hox::CppUtil::getAssertion().assertTrue(false, #condition, message, __FILE__, \
                                                             __LINE__))
