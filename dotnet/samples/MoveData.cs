// MoveData SOURCE TARGET: moves a directory to another place on the server, with a progress bar.
// Ctrl+C puts everything back.
//
//     csc -r:zopobsolete.dll MoveData.cs
using System;
using System.IO;
using System.Linq;
using zopobsolete;

static class MoveData
{
    static volatile bool interrupted;

    static int Main(string[] arguments)
    {
        if (arguments.Length != 2)
        {
            Console.Error.WriteLine("Usage: MoveData SOURCE TARGET");
            return 2;
        }
        Console.CancelKeyPress += (sender, e) =>
        {
            e.Cancel = true; // the move ends by itself, at the next item
            interrupted = true;
        };
        try
        {
            return Move(arguments[0], arguments[1]);
        }
        catch (Exception e)
        {
            Console.Error.WriteLine(e.Message);
            return 1;
        }
    }

    static int Move(string source, string target)
    {
        long total = new DirectoryInfo(source).EnumerateFiles("*", SearchOption.AllDirectories).Sum(file => file.Length);
        using (var location = new DataLocation())
        {
            location.ProgressEvent_Name += (string name, bool isFile, long cost, ref bool cancel) =>
            {
                Show(cost, total);
                cancel = interrupted;
            };
            location.ErrorEvent += error => Console.Error.WriteLine(Environment.NewLine + error.message);
            bool moved;
            try
            {
                moved = location.Change(source, target);
            }
            catch
            {
                location.Rollback();
                throw;
            }
            Show(moved ? total : 0, total);
            Console.WriteLine();
            if (!moved)
            {
                location.Rollback();
                Console.WriteLine("Cancelled. Everything is where it was.");
                return 3;
            }
            location.Commit();
            foreach (string left in location.LeftBehind)
            {
                Console.WriteLine("Left in the old place: " + left);
            }
            return 0;
        }
    }

    static void Show(long done, long total)
    {
        int filled = total == 0 ? 40 : (int)(Math.Min(done, total) * 40 / total);
        Console.Write("\r[" + new string('#', filled) + new string('.', 40 - filled) + "] " + done + " of " + total + " bytes ");
    }
}
