#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// A program run to its end with a bounded wait, for the tests that drive the
// build, packaging and installed programs; stdout and stderr together.
class Command
{
public:
    struct Result
    {
        bool finished = false;
        int exitCode = -1;
        QString output;
        // The command line, how it ended and what it printed, for failure messages.
        QString report;

        bool succeeded() const { return finished && exitCode == 0; }
    };

    static Result run(const QString& program, const QStringList& arguments, int timeoutMs = 60000,
                      const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                      const QString& workDirectory = QString());
};
