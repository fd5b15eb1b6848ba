int main() { return 0; }  // Placeholder until the benchmark lands.
