// Holds the headers that all test programs read (tests/CMakeLists.txt).
int main() {}
