#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

/// Who may call the agent, in plain words: what the bus has said of the daemon's name and of who runs its
/// owner, each call with what must come of it, and nothing of messages, slots and libraries.
class GateModel {
public:
    /// What must come of a call.
    enum class Fate { Waits, Delivered, Denied, TooMany, NoSuchMethod, WrongArguments };
    enum class Trust { Asking, Nobody, Undecided, Trusted, Untrusted };
    /// A call as it would be to the daemon: of the agent's, of no method of its, or not with a method's
    /// arguments.
    enum class Kind { Good, NoSuchMethod, WrongArguments };

    explicit GateModel(uid_t own) : m_own(own) {}

    /// The bus says who owns the name, by itself or when asked. True if whoever runs the owner must now be
    /// asked for.
    void told(const std::string& owner) {
        if (m_told && owner == m_owner) {
            return;
        }
        losses += m_owner.empty() ? 0 : 1;
        m_told = true;
        m_owner = owner;
        trust = owner.empty() ? Trust::Nobody : Trust::Asking;
        settle();
    }
    /// The bus says who runs the owner.
    void toldUser(uid_t user) {
        trust = user == 0 || user == m_own ? Trust::Trusted : Trust::Untrusted;
        settle();
    }
    /// The bus cannot say it.
    void userIsUnknown() {
        trust = Trust::Undecided;
        settle();
    }
    /// Somebody wants to know for certain.
    void doubt() { trust = trust == Trust::Undecided ? Trust::Asking : trust; }
    void listen() {
        m_listens = true;
        settle();
    }
    /// `sender` calls. The call's place in `fates` is that among all calls.
    void call(const std::string& sender, Kind kind) {
        // Everybody who calls is a reason to ask again, but for a known daemon.
        if (sender != m_owner || trust == Trust::Undecided) {
            doubt();
        }
        senders.push_back(sender);
        fates.push_back(sender == m_owner ? fateOfOwners(kind) : Fate::Denied);
        if (fates.back() == Fate::Delivered) {
            delivered.push_back(fates.size() - 1);
        }
    }

    const std::string& owner() const { return m_owner; }

    Trust trust = Trust::Asking;
    int losses = 0;
    std::vector<std::string> senders;
    std::vector<Fate> fates;
    /// Which calls were delivered, in the order in which they must have been.
    std::vector<std::size_t> delivered;

private:
    static constexpr std::size_t mostWaiting = 128;

    Fate fateOfOwners(Kind kind) const {
        switch (trust) {
            case Trust::Trusted:
                if (kind == Kind::Good) {
                    return m_listens ? Fate::Delivered : orTooMany();
                }
                return kind == Kind::NoSuchMethod ? Fate::NoSuchMethod : Fate::WrongArguments;
            case Trust::Asking:
                return kind == Kind::Good ? orTooMany() : Fate::Denied;
            default:
                return Fate::Denied;
        }
    }
    Fate orTooMany() const {
        std::size_t waiting = 0;
        for (const Fate fate : fates) {
            waiting += fate == Fate::Waits ? 1 : 0;
        }
        return waiting < mostWaiting ? Fate::Waits : Fate::TooMany;
    }
    /// What waits is decided as soon as it can be.
    void settle() {
        if (trust == Trust::Asking || (trust == Trust::Trusted && !m_listens)) {
            return;
        }
        for (std::size_t call = 0; call < fates.size(); ++call) {
            if (fates[call] == Fate::Waits) {
                const bool may = trust == Trust::Trusted && senders[call] == m_owner;
                fates[call] = may ? Fate::Delivered : Fate::Denied;
                if (may) {
                    delivered.push_back(call);
                }
            }
        }
    }

    uid_t m_own;
    bool m_told = false;
    bool m_listens = false;
    std::string m_owner;
};
