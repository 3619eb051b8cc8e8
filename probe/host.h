// A subscribed host: one load balancer's subscription with its own reply timer. Only
// what the host registry needs of it so far; subscriptions arrive with the control
// listener and the command interpreter.
#pragma once

class Host {
public:
    // Sends an extra load packet when the load moved by the host's threshold.
    void percentChange(unsigned int idle) { (void)idle; }
};
