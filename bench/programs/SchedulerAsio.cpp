#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <thread>

#include "Schedulers.h"

namespace bench {

namespace {

class Asio : public Scheduler {
public:
    Asio() : m_worker([this] { m_context.run(); }) {}
    ~Asio() override {
        m_context.stop();
        m_worker.join();
    }
    Asio(const Asio&) = delete;
    Asio& operator=(const Asio&) = delete;
    Asio(Asio&&) = delete;
    Asio& operator=(Asio&&) = delete;

    void schedule(std::chrono::milliseconds delay, const std::function<void()>& callback) override {
        m_timers.emplace_back(m_context, delay)
            .async_wait([callback](const boost::system::error_code& error) {
                if (!error) {
                    callback();
                }
            });
    }
    void cancel(std::size_t entry) override { m_timers[entry].cancel(); }
    void cancelAll() override {
        for (auto& timer : m_timers) {
            timer.cancel();
        }
    }

private:
    boost::asio::io_context m_context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work{m_context.get_executor()};
    std::deque<boost::asio::steady_timer> m_timers;
    std::thread m_worker;
};

}  // namespace

std::unique_ptr<Scheduler> makeAsio() {
    return std::make_unique<Asio>();
}

}  // namespace bench
