#pragma once

#include <QString>

#include <functional>

namespace quiltest {

struct DeathResult
{
    bool aborted = false;   // the child ended by SIGABRT
    QString fatalMessage;   // the QtFatalMsg text the child emitted, if any
};

// Runs body in a forked child that reports Qt's fatal message through a pipe,
// so assertion texts can be checked without taking the test process down.
DeathResult runInChild(const std::function<void()>& body);

} // namespace quiltest
