// The command methods of the Tal family (the "DSP" and "STP" drives): their
// listings end with ";", and a program download ends with the drive's
// compile check, so the program is ready to run.
#pragma once

#include "applicationeditor/productmethods.h"

namespace tessitor {

class CTalMethods : public CProductMethods {
public:
    using CProductMethods::CProductMethods;
    const char* GetFamily() const override { return "Tal"; }

protected:
    /// "CC" after the last line: a bad line is reported now, not at "XQ".
    void FinishProgramDownload() override { CompileProgram(); }
};

} // namespace tessitor
