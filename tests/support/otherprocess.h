// Another process, that a test lets do something and ends like a kill -9 does.
#pragma once

#include <cerrno>
#include <csignal>
#include <functional>
#include <system_error>

#include <sys/wait.h>
#include <unistd.h>

class OtherProcess
{
public:
    // Returns when the action is over. The process goes on living, without doing anything.
    explicit OtherProcess(const std::function<void()> &action)
    {
        int done[2];
        process_ = pipe(done) == 0 ? fork() : -1;
        if (process_ < 0)
        {
            throw std::system_error(errno, std::generic_category(), "another process");
        }
        if (process_ == 0)
        {
            [&action]() noexcept { action(); }(); // a failure is the end of it, not of the test once more
            close(done[1]);
            for (;;)
            {
                pause();
            }
        }
        close(done[1]);
        char byte;
        while (read(done[0], &byte, 1) > 0)
        {
        }
        close(done[0]);
    }

    ~OtherProcess()
    {
        killIt();
        waitpid(process_, nullptr, 0);
    }

    OtherProcess(const OtherProcess &) = delete;

    // It is a zombie from then on.
    void killIt() const
    {
        kill(process_, SIGKILL);
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOWAIT);
    }

    pid_t id() const
    {
        return process_;
    }

private:
    pid_t process_;
};
