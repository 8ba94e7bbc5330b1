// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>

#include <cstdio>

int main() {
    ContextData use;
    use.SetValue("unit", "radio");
    use.SetValue("seconds", 600);
    std::fputs(use.MakeStr(), stdout);

    use.GetValueInt("volume");  // absent: the getter inserts a null
    std::fputs(use.MakeStr(), stdout);
    use.IsValid("volume");  // removes the null
    std::fputs(use.MakeStr(), stdout);

    ContextData day;
    day.SetValue("uses", use);  // appends, so "uses" is an array
    day.SetValue("uses", use);
    ContextData second = day.GetValuePtr("uses", 1);  // a view: writing to it changes `day`
    second.SetValue("seconds", 1200);
    std::fputs(day.MakeStr(), stdout);
    std::printf("%d uses\n", day.GetSize("uses"));
}
