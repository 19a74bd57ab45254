@echo off
rem Runs all test programs on this machine. Start it by a double click or from a console. It needs no administrator rights
rem and no installation; all it leaves is report.txt beside it. "set GTEST_FILTER=*Sign*" beforehand runs the cases with
rem that word only. "run.cmd nopause" does not wait at its end.
setlocal enableextensions enabledelayedexpansion
cd /d "%~dp0"
set passed=0
set failed=0
set count=0
set number=0
for %%p in (bin\*_tests.exe) do set /a count+=1

>report.txt ver
>>report.txt echo %PROCESSOR_ARCHITECTURE% %PROCESSOR_ARCHITEW6432%
>>report.txt echo Started %DATE% %TIME%
echo The dialogs' tests type and click: leave mouse and keyboard alone. It takes some minutes.
for %%p in (bin\*_tests.exe) do call :run %%p

if %count%==0 set /a failed+=1
>>report.txt echo Ended %DATE% %TIME%
>>report.txt echo %passed% passed, %failed% failed
echo.
echo The report is in %~dp0report.txt
echo %passed% passed, %failed% failed
rem After a double click the window would be gone at once.
if not "%1"=="nopause" pause
if not %failed%==0 exit /b 1
exit /b 0

:run
set /a number+=1
echo [%number%/%count%] %~n1
>>report.txt echo.
>>report.txt echo ==== %~n1
set good=
set bad=0
%1 >output.txt 2>&1
set status=%errorlevel%
rem GoogleTest ends with "[  PASSED  ] N tests." and, if there are any, "N FAILED TESTS".
for /f "tokens=1,2 delims=[] " %%a in (output.txt) do (
  if "%%a"=="PASSED" set good=%%b
  if "%%b"=="FAILED" set bad=%%a
)
type output.txt >>report.txt
del output.txt
>>report.txt echo ==== %~n1 ended with %status%
if not defined good (
  echo        it ended early, with %status%
  set good=0
  if %bad%==0 set bad=1
)
if %bad%==0 if not %status%==0 (
  echo        it ended with %status%
  set bad=1
)
echo        %good% passed, %bad% failed
set /a passed+=good
set /a failed+=bad
goto :eof
