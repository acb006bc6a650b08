# UNPROVEN: nobody has run this yet, and no figure in docs/benchmarks.md comes from it.
#
# On a real Windows: times our move of a tree against robocopy (one thread), a bare CopyFileW loop
# and rd, in turn, and prints medians, ratios and targets. Both folders should lie on fast disks;
# on two volumes the copy is the one that a move between volumes makes. Exclude them from virus
# scanning, or say that it was on. Needs a console run as administrator: owners and audit lists are
# copied by both.
#
#   .\compare.ps1 -Programs C:\zop\bin -Source D:\bench -Target E:\bench [-Rounds 5] [-Quick]
param(
    [Parameter(Mandatory = $true)][string]$Programs, # folder of move_bench.exe and copyfile_loop.exe
    [Parameter(Mandatory = $true)][string]$Source,   # made, and removed again
    [Parameter(Mandatory = $true)][string]$Target,   # made, and removed again
    [ValidateRange(1, 1000)][int]$Rounds = 5,
    [switch]$Quick
)
Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

foreach ($folder in $Source, $Target) {
    if (Test-Path -LiteralPath $folder) { throw "$folder exists already; name one that does not." }
}
$move = Join-Path $Programs 'move_bench.exe'
$loop = Join-Path $Programs 'copyfile_loop.exe'
foreach ($program in $move, $loop) {
    if (-not (Test-Path -LiteralPath $program)) { throw "$program is missing." }
}

function New-Tree([string]$Place, [int]$Folders, [int]$Files, [long]$Bytes) {
    $block = New-Object byte[] ([Math]::Min($Bytes, 1MB))
    (New-Object Random 1).NextBytes($block)
    $made = 0
    for ($folder = 0; $folder -lt $Folders; ++$folder) {
        $path = '{0}\group {1:000}\folder {2:00000}' -f $Place, [Math]::Floor($folder / 40), $folder
        [void][IO.Directory]::CreateDirectory($path)
        while ($made -lt [Math]::Floor($Files * ($folder + 1) / $Folders)) {
            $stream = [IO.File]::Create(('{0}\file {1:000000}.dat' -f $path, $made))
            try {
                for ($left = $Bytes; $left -gt 0; $left -= $block.Length) {
                    $stream.Write($block, 0, [int][Math]::Min($left, $block.Length))
                }
            } finally { $stream.Dispose() }
            ++$made
        }
    }
}

function Get-Milliseconds([scriptblock]$Action) {
    $watch = [Diagnostics.Stopwatch]::StartNew()
    & $Action
    $watch.Elapsed.TotalMilliseconds
}

function Get-Median([double[]]$Values) {
    $sorted = @($Values | Sort-Object)
    $middle = [int][Math]::Floor($sorted.Count / 2)
    if ($sorted.Count % 2) { $sorted[$middle] } else { ($sorted[$middle - 1] + $sorted[$middle]) / 2 }
}

function Assert-Exit([int]$Highest, [string]$What) {
    if ($LASTEXITCODE -lt 0 -or $LASTEXITCODE -gt $Highest) { throw "$What failed: $LASTEXITCODE" }
}

$trees = if ($Quick) {
    @(@('small', 40, 1000, 4KB), @('large', 1, 2, 64MB), @('empty', 80, 2000, 0))
} else {
    @(@('small', 800, 20000, 4KB), @('large', 1, 4, 512MB), @('empty', 2000, 50000, 0))
}
$targets = @()
try {
    [void][IO.Directory]::CreateDirectory($Target)
    foreach ($tree in $trees) {
        $name, $folders, $files, $bytes = $tree
        New-Tree "$Source\tree" $folders $files $bytes
        $times = @{ robocopy = @(); rd = @(); loop = @(); copy = @(); removal = @(); start = @() }
        for ($round = 1; $round -le $Rounds; ++$round) {
            Write-Host "${name}: round $round of $Rounds"
            $times.start += Get-Milliseconds { & $move nothing; Assert-Exit 0 'move_bench' }
            $times.robocopy += Get-Milliseconds {
                robocopy "$Source\tree" "$Target\robocopy" /E /COPYALL /DCOPY:DAT /SL /R:0 /W:0 /NFL /NDL /NJH /NJS /NP | Out-Null
                Assert-Exit 7 'robocopy' # below 8 nothing has failed
            }
            $times.rd += Get-Milliseconds { cmd /c rd /s /q "$Target\robocopy"; Assert-Exit 0 'rd' }
            $printed = & $loop "$Source\tree" "$Target\loop"
            Assert-Exit 0 'copyfile_loop'
            $times.loop += [double]::Parse($printed, [Globalization.CultureInfo]::InvariantCulture)
            cmd /c rd /s /q "$Target\loop"
            $printed = & $move copy "$Source\tree" "$Target\ours"
            Assert-Exit 0 'move_bench'
            $result = $printed | ConvertFrom-Json
            $times.copy += $result.move_ms
            $times.removal += $result.commit_ms
            $printed = & $move copy "$Target\ours" "$Source\tree" # back, for the next round
            Assert-Exit 0 'move_bench'
        }
        $start = Get-Median $times.start
        $robocopy = (Get-Median $times.robocopy) - $start
        $rd = (Get-Median $times.rd) - $start
        $copy = Get-Median $times.copy
        $plain = Get-Median $times.loop
        $removal = Get-Median $times.removal
        '{0,-6} copy {1:n0} ms   robocopy {2:n0} ({3:n2})   loop {4:n0} ({5:n2})' -f $name, $copy, $robocopy, ($copy / $robocopy), $plain, ($copy / $plain)
        '{0,-6} removal {1:n0} ms   rd {2:n0} ({3:n2})' -f $name, $removal, $rd, ($removal / $rd)
        $targets += [pscustomobject]@{ What = "$name, copy against robocopy"; Ratio = $copy / $robocopy; Limit = 1.0 }
        Remove-Item -LiteralPath "$Source\tree" -Recurse -Force
    }
    foreach ($one in $targets) {
        '{0}  {1}: {2:n2} (at most {3:n2})' -f $(if ($one.Ratio -le $one.Limit) { 'PASS' } else { 'MISS' }), $one.What, $one.Ratio, $one.Limit
    }
} finally {
    foreach ($folder in $Source, $Target) {
        if (Test-Path -LiteralPath $folder) { Remove-Item -LiteralPath $folder -Recurse -Force }
    }
}
