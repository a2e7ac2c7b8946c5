// A shared library that does nothing: what any library costs to load.

__attribute__((visibility("default"))) void EmptyCall(void* room);

void EmptyCall(void* room)
{
    (void)room;
}
