// Live objects for the debugger to print.
#include <Kalvoren.h>

int main() {
    g_eDebugLevel = 3;
    const KString text("gate \"north\"\n");
    const KString empty;
    KPath path("/etc/device");
    path.SetType(KPath::TYPE_DIRECTORY);
    KList<KString> fields;
    KString("a,b").Divide(",", fields);
    const KTime time(946684800LL, 5, 36, 0);
    char bytes[] = "abc";
    const KMem block(bytes, 3);
    const KNetInfo endpoint(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "127.0.0.1", 80);
    KString first("door");
    KString second("open");
    const KMessage message(first, second, bytes, 3);
    KPropertyList* const pProperties = new KPropertyList(KString("<dict><key>a</key><string>x</string></dict>"));
    KPropertyNode& node = *pProperties->GetRoot();
    KDebug::Time(time);  // the debugger stops here
    return node.GetNodeCount() - 1;
}
