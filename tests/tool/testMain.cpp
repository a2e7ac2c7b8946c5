#include "toolTests.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        return 1;
    }
    return RUN_ALL_TESTS();
}
