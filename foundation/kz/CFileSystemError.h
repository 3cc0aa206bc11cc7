#pragma once

#include "harl/foundation/kz/CError.h"

namespace kz {

// A file system refused an operation. It wraps the error that says why: message, detail,
// code, properties and cause are that error's, and getInner() gives the error itself.
class CFileSystemError : public CError {
public:
    enum Problem {
        Other = 0,
        NotFound = 1,
        AccessDenied = 2,
        AlreadyExists = 3,
        NoSpace = 4,
        Busy = 5,
        Unsupported = 6,
    };

    CFileSystemError(Problem problem, const CError& error)
        : CError(error.getMessage(), error.getDetail(), error.getCode(), error.getProps(),
                 error.getCause()),
          problem(problem),
          inner(std::make_exception_ptr(error)) {
        setPrefix(String("File system error ") + String::number(problem) + ": ");
    }

    Problem getProblem() const { return problem; }

    std::exception_ptr getInner() const { return inner; }

private:
    Problem problem;
    std::exception_ptr inner;
};

}  // namespace kz
