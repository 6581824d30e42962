// Windows, their classes and their messages, without anything that is seen or typed.
#pragma once

#include <windef.h>

#define WM_NULL 0x0000
#define WM_CREATE 0x0001
#define WM_DESTROY 0x0002
#define WM_SETTEXT 0x000C
#define WM_GETTEXT 0x000D
#define WM_GETTEXTLENGTH 0x000E
#define WM_CLOSE 0x0010
#define WM_QUERYENDSESSION 0x0011
#define WM_QUIT 0x0012
#define WM_NCCREATE 0x0081
#define WM_NCDESTROY 0x0082
#define WM_USER 0x0400
#define WM_APP 0x8000
#define SMTO_NORMAL 0x0000
#define SMTO_ABORTIFHUNG 0x0002
#define GA_PARENT 1
#define GA_ROOT 2
#define GA_ROOTOWNER 3
#define WS_OVERLAPPED 0x00000000
#define WS_POPUP 0x80000000
#define WS_CHILD 0x40000000
#define WS_OVERLAPPEDWINDOW 0x00CF0000
#define CW_USEDEFAULT static_cast<int>(0x80000000)
#define HWND_MESSAGE reinterpret_cast<HWND>(static_cast<INT_PTR>(-3))
#define PM_NOREMOVE 0x0000
#define PM_REMOVE 0x0001
#define GWLP_USERDATA (-21)

typedef BOOL(CALLBACK* WNDENUMPROC)(HWND window, LPARAM parameter);
typedef LRESULT(CALLBACK* WNDPROC)(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

typedef struct tagPOINT {
    LONG x;
    LONG y;
} POINT, *LPPOINT;

typedef struct tagMSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
} MSG, *LPMSG;

typedef struct tagWNDCLASSA {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCSTR lpszMenuName;
    LPCSTR lpszClassName;
} WNDCLASSA, *LPWNDCLASSA;

typedef struct tagCREATESTRUCTA {
    LPVOID lpCreateParams;
    HINSTANCE hInstance;
    HMENU hMenu;
    HWND hwndParent;
    int cy;
    int cx;
    int y;
    int x;
    LONG style;
    LPCSTR lpszName;
    LPCSTR lpszClass;
    DWORD dwExStyle;
} CREATESTRUCTA, *LPCREATESTRUCTA;

extern "C" {
BOOL WINAPI EnumWindows(WNDENUMPROC procedure, LPARAM parameter);
DWORD WINAPI GetWindowThreadProcessId(HWND window, LPDWORD processId);
HWND WINAPI GetAncestor(HWND window, UINT flags);
BOOL WINAPI IsWindow(HWND window);
HWND WINAPI FindWindowA(LPCSTR className, LPCSTR windowName);

ATOM WINAPI RegisterClassA(const WNDCLASSA* windowClass);
BOOL WINAPI UnregisterClassA(LPCSTR className, HINSTANCE instance);
HWND WINAPI CreateWindowExA(DWORD exStyle, LPCSTR className, LPCSTR windowName, DWORD style, int x, int y,
                            int width, int height, HWND parent, HMENU menu, HINSTANCE instance,
                            LPVOID parameter);
BOOL WINAPI DestroyWindow(HWND window);
LRESULT WINAPI DefWindowProcA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
LONG_PTR WINAPI GetWindowLongPtrA(HWND window, int index);
LONG_PTR WINAPI SetWindowLongPtrA(HWND window, int index, LONG_PTR value);

BOOL WINAPI GetMessageA(LPMSG message, HWND window, UINT first, UINT last);
BOOL WINAPI PeekMessageA(LPMSG message, HWND window, UINT first, UINT last, UINT remove);
BOOL WINAPI TranslateMessage(const MSG* message);
LRESULT WINAPI DispatchMessageA(const MSG* message);
BOOL WINAPI PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
VOID WINAPI PostQuitMessage(int exitCode);
LRESULT WINAPI SendMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
LRESULT WINAPI SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                                   UINT timeout, PDWORD_PTR result);
}
