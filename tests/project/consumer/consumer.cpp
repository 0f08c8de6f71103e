// A program outside the library's tree. It finds the headers under both of their names.
#include <KList.h>
#include <kalvoren/KString.h>

#include <cstdio>

int main() {
    KList<KString> words;
    words.Add(KString("one"));
    words.Add(KString("two"));
    words.Add(KString("three"));
    KString strLine;
    for (int nIndex = 0; nIndex < words.GetCount(); ++nIndex) {
        strLine += nIndex > 0 ? ", " : "";
        strLine += *words[nIndex];
    }
    std::printf("%s\n", strLine.GetBuffer());
    return 0;
}
