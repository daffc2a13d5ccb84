// The program whose precompiled headers the test programs share; never run.
int main() { return 0; }
