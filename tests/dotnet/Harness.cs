// A small test runner: every public method marked [Test] of a class in this assembly runs on an
// object of its own, which is disposed of afterwards.
using System;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Text;

[AttributeUsage(AttributeTargets.Method)]
public sealed class TestAttribute : Attribute
{
}

public static class Check
{
    public static void Equal<T>(T expected, T actual)
    {
        if (!Equals(expected, actual))
        {
            throw new Exception("expected <" + expected + ">, not <" + actual + ">");
        }
    }

    public static void True(bool holds, object shown = null)
    {
        if (!holds)
        {
            throw new Exception("does not hold" + (shown == null ? "" : ": " + shown));
        }
    }

    public static E Throws<E>(Action action) where E : Exception
    {
        try
        {
            action();
        }
        catch (E e)
        {
            if (e.GetType() == typeof(E))
            {
                return e;
            }
            throw new Exception("another exception: " + e);
        }
        throw new Exception("nothing was thrown");
    }
}

public static class Program
{
    public static int Main(string[] arguments)
    {
        Console.SetOut(new StreamWriter(Console.OpenStandardOutput(), new UTF8Encoding(false)) { AutoFlush = true });
        int passed = 0, failed = 0;
        foreach (Type type in Assembly.GetExecutingAssembly().GetTypes())
        {
            foreach (MethodInfo method in type.GetMethods().Where(m => m.IsDefined(typeof(TestAttribute))))
            {
                string name = type.Name + "." + method.Name;
                if (arguments.Length != 0 && !arguments.Any(name.Contains))
                {
                    continue;
                }
                try
                {
                    object suite = Activator.CreateInstance(type);
                    using (suite as IDisposable)
                    {
                        method.Invoke(suite, null);
                    }
                    ++passed;
                }
                catch (Exception e)
                {
                    ++failed;
                    Console.WriteLine("FAILED " + name + ": " + ((e as TargetInvocationException)?.InnerException ?? e));
                }
            }
        }
        Console.WriteLine(passed + " passed, " + failed + " failed");
        return failed == 0 && passed != 0 ? 0 : 1;
    }
}
