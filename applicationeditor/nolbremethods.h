// The command methods of the NolBre family (the older "BreNol" drives):
// listings and the answers to "DL" lines and "CC" end with 0x08 (the link
// switches its terminator for them), and a program download leaves the
// compile ("CC") to the caller, which the application download sends.
#pragma once

#include "applicationeditor/productmethods.h"

namespace tessitor {

class CNolBreMethods : public CProductMethods {
public:
    using CProductMethods::CProductMethods;
    const char* GetFamily() const override { return "NolBre"; }

protected:
    void FinishProgramDownload() override {}
};

} // namespace tessitor
