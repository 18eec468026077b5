// A program outside the tree, built against an installed tarvel (find_package or pkg-config) as
// C++17: writes a small file, reads it back, spells a value with the type service, and asks the
// diagnosis of a broken file. Exit 0 when everything answers as documented.
#include <sorvat/typeinfo.h>
#include <tarvel/tarvel.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    const std::string path = std::string(argc > 1 ? argv[1] : ".") + "/consumer.twf";
    Tarvel::ITarvelWrite* w = Tarvel::CreateStreamWriteTimed(path.c_str());
    const unsigned char one[4] = {3, 0, 0, 0};  // std_logic '1'
    bool ok = w && w->SetTypeInfo(1, "e#9#std_logicc9 UX01ZWLH-") && w->StoreSignal(1, Tarvel::kPortIn, -1, 0, "clk", 0) &&
              w->SetTime(5000) && w->StoreValue(1, one) && w->Commit() && w->Release();
    Tarvel::IRawTarvelRead* r = ok ? Tarvel::CreateRawTarvelRead(path.c_str()) : nullptr;
    Tarvel::KEventData e;
    unsigned char value[4] = {};
    char text[8] = "";
    ok = r && r->GetSignalData(1)->GetFirstEvent(&e) && e.GetTime() == 5000 && e.GetValue(value, sizeof value) &&
         Sorvat::KTypeInfo(r->GetTypeInfo(r->GetTypeId(1))).GetValueString_OldFormatLen(text, sizeof text, value, 0, 0) &&
         std::strcmp(text, "1") == 0;
    Tarvel::DeleteRawTarvelRead(r);
    Tarvel::TarvelDiagnosis d;
    ok = ok && !Tarvel::DiagnoseTarvelFile((path + ".missing").c_str(), &d) && d.line == 0;
    std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
