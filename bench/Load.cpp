// What a program costs that starts and ends: linked to the library, or to the library's
// dependencies alone.
int main() {}
