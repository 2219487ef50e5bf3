; The helper's Windows installer: per machine, into a folder only
; administrators can write (the service runs what lies there as LocalSystem),
; the service registered and started, an uninstaller and an Add/Remove
; Programs entry. Built by CMake's "installer" target (scripts/package-windows.sh):
;
;   makensis -WX -DVERSION=0.1.0 -DHELPER_EXE=... [-DCORE_EXE=...] -DOUTFILE=... OrvelVpnHelper.nsi
;
; Exit codes, silent (/S) or not, for a client's own installer to check:
;   0 done; 1 cancelled by the user; 2 not run as an administrator;
;   3 the running service did not stop within 30 s (nothing was replaced);
;   4 a file could not be written (a helper the user started still runs from
;     the folder?); the service that ran before runs again;
;   5 the service could not be registered; 6 it could not be started.
; The uninstaller: 0 done; 2 not an administrator; 3 the service could not be
; stopped or removed (nothing was deleted); 4 a file could not be deleted.

Unicode true
Target amd64-unicode

!ifndef VERSION | HELPER_EXE | OUTFILE
  !error "VERSION, HELPER_EXE and OUTFILE must be defined"
!endif

!include "LogicLib.nsh"
!include "FileFunc.nsh"

!define PRODUCT "Orvel VPN Helper"
!define PUBLISHER "Orvel VPN"
!define SERVICE "OrvelVpnHelperService"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\OrvelVpnHelper"

; The Service Control Manager's numbers used below.
!define SC_MANAGER_CONNECT 0x1
!define SERVICE_QUERY_STATUS 0x4
!define SERVICE_START 0x10
!define SERVICE_STOP 0x20
!define SERVICE_CONTROL_STOP 1
!define SERVICE_STOPPED 1
!define SERVICE_START_PENDING 2
!define SERVICE_STOP_PENDING 3
!define SERVICE_RUNNING 4
!define /math STOP_ACCESS ${SERVICE_QUERY_STATUS} | ${SERVICE_STOP}
!define /math START_ACCESS ${SERVICE_QUERY_STATUS} | ${SERVICE_START}
!define ERROR_BROKEN_PIPE 109
!define ERROR_SERVICE_ALREADY_RUNNING 1056
!define ERROR_SERVICE_DOES_NOT_EXIST 1060
!define ERROR_SERVICE_CANNOT_ACCEPT_CTRL 1061
!define ERROR_SERVICE_NOT_ACTIVE 1062

Name "${PRODUCT}"
OutFile "${OUTFILE}"
InstallDir "$PROGRAMFILES64\OrvelVPN"
; An upgrade goes where the last installation went.
InstallDirRegKey HKLM "${UNINSTALL_KEY}" "InstallLocation"
RequestExecutionLevel admin
SetCompressor /SOLID lzma
ShowInstDetails show
ShowUninstDetails show

VIProductVersion "${VERSION}.0"
VIAddVersionKey /LANG=0 "ProductName" "${PRODUCT}"
VIAddVersionKey /LANG=0 "CompanyName" "${PUBLISHER}"
VIAddVersionKey /LANG=0 "FileDescription" "${PRODUCT} Setup"
VIAddVersionKey /LANG=0 "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=0 "ProductVersion" "${VERSION}"
VIAddVersionKey /LANG=0 "LegalCopyright" "${PUBLISHER}"

Page directory
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles

Var ServiceWasStopped

!macro RequireAdministrator
  UserInfo::GetAccountType
  Pop $0
  ${If} $0 != "Admin"
    MessageBox MB_ICONSTOP "${PRODUCT} must be installed and removed by an administrator." /SD IDOK
    SetErrorLevel 2
    Quit
  ${EndIf}
!macroend

; Opens the service with `access`; $R0 the manager, $R1 the service (0 when
; either could not be opened), $R2 the error of the last call.
!macro OpenService access
  StrCpy $R1 0
  System::Call 'advapi32::OpenSCManagerW(p 0, p 0, i ${SC_MANAGER_CONNECT}) p.R0 ?e'
  Pop $R2
  ${If} $R0 P<> 0
    System::Call 'advapi32::OpenServiceW(p R0, w "${SERVICE}", i ${access}) p.R1 ?e'
    Pop $R2
  ${EndIf}
!macroend

!macro CloseService
  ${If} $R1 P<> 0
    System::Call 'advapi32::CloseServiceHandle(p R1)'
  ${EndIf}
  ${If} $R0 P<> 0
    System::Call 'advapi32::CloseServiceHandle(p R0)'
  ${EndIf}
!macroend

; The service's state into $R5 (0 when it cannot be read); $R3 is a
; SERVICE_STATUS (seven DWORDs).
!macro QueryState
  System::Call 'advapi32::QueryServiceStatus(p R1, p R3) i.R4'
  StrCpy $R5 0
  ${If} $R4 <> 0
    System::Call '*$R3(i, i.R5)'
  ${EndIf}
!macroend

; Stops the service unless it is stopped already, and waits up to 30 s until
; it has. Pushes "ok" (stopped, or no such service) or "failed". Sets
; $ServiceWasStopped to 1 when it stopped a service that ran.
Function StopServiceAndWait
  StrCpy $ServiceWasStopped 0
  !insertmacro OpenService ${STOP_ACCESS}
  ${If} $R1 P= 0
    !insertmacro CloseService
    ${If} $R2 = ${ERROR_SERVICE_DOES_NOT_EXIST}
      Push "ok"
    ${Else}
      Push "failed"
    ${EndIf}
    Return
  ${EndIf}
  System::Alloc 28
  Pop $R3
  StrCpy $R6 "failed"
  StrCpy $R7 0  ; the stop was asked for
  ${For} $R8 1 300
    !insertmacro QueryState
    ${If} $R5 = 0
      ${Break}
    ${ElseIf} $R5 = ${SERVICE_STOPPED}
      StrCpy $R6 "ok"
      ${Break}
    ${EndIf}
    ${If} $R7 = 0
    ${AndIf} $R5 <> ${SERVICE_START_PENDING}
    ${AndIf} $R5 <> ${SERVICE_STOP_PENDING}
      ; The helper ends its process right after it reports "stopped", so
      ; the answer may be lost with the pipe; the state tells.
      System::Call 'advapi32::ControlService(p R1, i ${SERVICE_CONTROL_STOP}, p R3) i.R4 ?e'
      Pop $R2
      ${If} $R4 <> 0
      ${OrIf} $R2 = ${ERROR_BROKEN_PIPE}
      ${OrIf} $R2 = ${ERROR_SERVICE_NOT_ACTIVE}
        StrCpy $R7 1
        StrCpy $ServiceWasStopped 1
      ${ElseIf} $R2 <> ${ERROR_SERVICE_CANNOT_ACCEPT_CTRL}
        ${Break}
      ${EndIf}
    ${EndIf}
    Sleep 100
  ${Next}
  System::Free $R3
  !insertmacro CloseService
  Push $R6
FunctionEnd

; Starts the service and waits up to 30 s until it runs. Pushes "ok" or
; "failed".
Function StartServiceAndWait
  !insertmacro OpenService ${START_ACCESS}
  ${If} $R1 P= 0
    !insertmacro CloseService
    Push "failed"
    Return
  ${EndIf}
  StrCpy $R6 "failed"
  System::Call 'advapi32::StartServiceW(p R1, i 0, p 0) i.R4 ?e'
  Pop $R2
  ${If} $R4 <> 0
  ${OrIf} $R2 = ${ERROR_SERVICE_ALREADY_RUNNING}
    System::Alloc 28
    Pop $R3
    ${For} $R8 1 300
      !insertmacro QueryState
      ${If} $R5 = ${SERVICE_RUNNING}
        StrCpy $R6 "ok"
        ${Break}
      ${ElseIf} $R5 <> ${SERVICE_START_PENDING}
        ${Break}
      ${EndIf}
      Sleep 100
    ${Next}
    System::Free $R3
  ${EndIf}
  !insertmacro CloseService
  Push $R6
FunctionEnd

Function .onInit
  SetRegView 64
  !insertmacro RequireAdministrator
FunctionEnd

Section "Install"
  SetOutPath "$INSTDIR"
  ; The exe of a running service cannot be overwritten: stop it first, and
  ; touch nothing when it will not stop.
  DetailPrint "Stopping ${SERVICE}"
  Call StopServiceAndWait
  Pop $0
  ${If} $0 != "ok"
    SetErrorLevel 3
    Abort "${SERVICE} did not stop; nothing was replaced."
  ${EndIf}

  ClearErrors
  SetOverwrite try
  File "/oname=OrvelVpnHelper.exe" "${HELPER_EXE}"
  !ifdef CORE_EXE
    File "/oname=sing-box.exe" "${CORE_EXE}"
  !endif
  SetOverwrite on
  ${If} ${Errors}
    ${If} $ServiceWasStopped = 1
      Call StartServiceAndWait
      Pop $0
    ${EndIf}
    SetErrorLevel 4
    Abort "A file in $INSTDIR could not be written; is a helper still running from there?"
  ${EndIf}

  ; Removable from here on, whatever follows.
  WriteUninstaller "$INSTDIR\uninstall.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "${PUBLISHER}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\OrvelVpnHelper.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0

  DetailPrint "Registering ${SERVICE}"
  ClearErrors
  ExecWait '"$INSTDIR\OrvelVpnHelper.exe" --install-service' $0
  ${If} ${Errors}
  ${OrIf} $0 <> 0
    SetErrorLevel 5
    Abort "${SERVICE} could not be registered (exit code $0)."
  ${EndIf}
  DetailPrint "Starting ${SERVICE}"
  Call StartServiceAndWait
  Pop $0
  ${If} $0 != "ok"
    SetErrorLevel 6
    Abort "${SERVICE} did not start."
  ${EndIf}
SectionEnd

Function un.onInit
  SetRegView 64
  !insertmacro RequireAdministrator
FunctionEnd

Section "Uninstall"
  ; The helper removes its own service: stopped, waited for, deleted.
  ${If} ${FileExists} "$INSTDIR\OrvelVpnHelper.exe"
    DetailPrint "Removing ${SERVICE}"
    ClearErrors
    ExecWait '"$INSTDIR\OrvelVpnHelper.exe" --uninstall-service' $0
    ${If} ${Errors}
    ${OrIf} $0 <> 0
      SetErrorLevel 3
      Abort "${SERVICE} could not be removed (exit code $0); nothing was deleted."
    ${EndIf}
  ${EndIf}

  ; Only what the installer or the client put here: a folder chosen with /D
  ; may hold other things, which stay.
  ClearErrors
  Delete "$INSTDIR\OrvelVpnHelper.exe"
  Delete "$INSTDIR\sing-box.exe"
  Delete "$INSTDIR\data\sing-box.exe"
  ${If} ${Errors}
    SetErrorLevel 4
    Abort "A file in $INSTDIR could not be deleted; is a helper still running from there?"
  ${EndIf}
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR\data"
  RMDir "$INSTDIR"
  DeleteRegKey HKLM "${UNINSTALL_KEY}"
SectionEnd
