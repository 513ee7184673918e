#pragma once

#include "common/terminalchannel.h"

#include <QList>
#include <functional>

// A terminal channel that only remembers what routing handed it, for tests of the gateway.
// `onRequest`, when set, runs inside the hand-over, while the gateway is still routing.
class RecordingChannel : public TerminalChannel {
public:
    using TerminalChannel::TerminalChannel;

    void handleRequest(const TerminalRequest &request) override {
        requests << request;
        if (onRequest)
            onRequest(request);
    }

    QList<TerminalRequest> requests;
    std::function<void(const TerminalRequest &)> onRequest;
};
