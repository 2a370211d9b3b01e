// Reads the record stream of a Kinetrel tracker on the same machine. One source file for Unity and
// for .NET Standard 2.0 and later, on Linux and Windows; no unsafe code, nothing to install.
//
//     using (var tracker = KinetrelStream.Open(1, 5000))
//       while (true)
//         if (tracker.Next(out KinetrelRecord record, 1000))
//           Console.WriteLine($"{record.Sensor} {record.X} {record.Y} {record.Z}");
//
// Units    metres, radians; times are nanoseconds of KinetrelStream.NowNs.
// Frame    the tracker's own, right-handed; quaternions are W, X, Y, Z. KinetrelUnity turns a pose
//          into Unity's frame.
// Sensors  count from 1.
// Threads  one at a time for each KinetrelStream; each thread opens its own.
// Trust    what the object says is checked before it is used. Nothing outside it is read.
//
// The format is described in docs/stream.md; include/kinetrel/stream.h declares it.
using System;
using System.Collections.Generic;
using System.IO;
using System.IO.MemoryMappedFiles;
using System.Runtime.InteropServices;
using System.Text;
using System.Threading;

namespace Kinetrel
{
    /// <summary>What the device said of one sensor at one moment. What is not valid is NaN.</summary>
    public struct KinetrelRecord
    {
        public ulong Number;  // running, from 1
        public ulong Frame;   // the same for the records of one device frame
        public long SampleNs; // when the device took the sample
        public long PublishNs;
        public double X, Y, Z;             // m
        public float QW, QX, QY, QZ;       // unit quaternion
        public float Azimuth, Elevation, Roll; // rad
        public int Sensor; // from 1
        public uint Flags;
        public int DeviceCode;
        public uint Buttons; // bit i is button i; of those in ButtonsKnown
        public uint ButtonsKnown;

        public bool HasPosition { get { return (Flags & 1) != 0; } }
        public bool HasOrientation { get { return (Flags & 2) != 0; } }
        /// <summary>Whether the pose went through filters; see KinetrelStream.DevicePose.</summary>
        public bool IsFiltered { get { return (Flags & 0x800) != 0; } }

        /// <summary>Seconds since the device took the sample.</summary>
        public double Age { get { return (KinetrelStream.NowNs - SampleNs) * 1e-9; } }
    }

    public enum KinetrelState { Unknown, Starting, Running, Silent, Recovering, Stopped, Failed, Lost }

    /// <summary>The slot has no stream, or one that cannot be read; the message says why.</summary>
    public class KinetrelException : Exception
    {
        public KinetrelException(string message) : base(message) { }
    }

    public sealed class KinetrelStream : IDisposable
    {
        // ---- Layout: include/kinetrel/stream.h; tests/csharp compares the two ----
        const uint Version = 1;
        const int HeadSize = 112, LiveSize = 64, RunSize = 1632, RecordSize = 104, LogLineSize = 256,
                  DevicePoseSize = 64;
        const int Sensors = 32;
        const int Instance = 24, LiveOffset = 40, RunOffset = 48, SensorOffset = 56, LogOffset = 64,
                  RingOffset = 76, DevicePoseOffset = 88;
        const uint PoseBits = 0x703, FilterBits = 0x1800;
        const int Newest = 0, Arrivals = 8, Heartbeat = 24;
        const int RunState = 40, RunStateText = 160, RunStateTextSize = 256, RunDeviceName = 416,
                  RunDeviceNameSize = 128;

        const int Tries = 1000; // a writer needs far less than that many reads for one entry
        const int CheckEveryMs = 250;
        const long HeartbeatPatienceNs = 3000000000;

        readonly int slot;
        Section section; // null while the next writer is awaited
        byte[] head;
        ulong next;
        long checkNs;
        readonly byte[] copy = new byte[RunSize];

        /// <summary>Records that were overwritten before this reader came to them.</summary>
        public ulong Lost { get; private set; }

        /// <summary>How often another writer has taken over the slot.</summary>
        public int Restarts { get; private set; }

        /// <summary>The clock of the stream's times, in nanoseconds.</summary>
        public static long NowNs { get { return Os.NowNs(); } }

        KinetrelStream(int slot)
        {
            this.slot = slot;
            string why = TryAttach();
            if (why != null) throw new KinetrelException("slot " + slot + ": " + why);
            Skip();
        }

        /// <summary>Opens a slot (1 to 16, as in option -w) for the records from now on.</summary>
        /// <param name="waitMs">How long to wait for a tracker; 0: not at all.</param>
        public static KinetrelStream Open(int slot, int waitMs)
        {
            if (slot < 1 || slot > 16) throw new ArgumentOutOfRangeException("slot", "slots are 1 to 16");
            long end = NowNs + waitMs * 1000000L;
            for (;;)
            {
                try { return new KinetrelStream(slot); }
                catch (KinetrelException) { if (NowNs >= end) throw; }
                Thread.Sleep(20);
            }
        }

        public void Dispose()
        {
            if (section != null) section.Dispose();
            section = null;
        }

        /// <summary>Goes to what comes from now on.</summary>
        public void Skip() { if (section != null) next = Load(Live(Newest)) + 1; }

        // ---- Opening ----

        // Null when done, else why not.
        string TryAttach()
        {
            Section found;
            string why = Os.Map(slot, out found);
            if (why != null) return why;
            byte[] bytes = new byte[HeadSize];
            if (found.Size < HeadSize) why = "not a Kinetrel stream";
            else
            {
                found.Copy(0, bytes, HeadSize);
                why = Check(bytes, found.Size);
            }
            if (why != null)
            {
                found.Dispose();
                return why;
            }
            if (section != null) section.Dispose();
            section = found;
            head = bytes;
            return null;
        }

        static uint U32(byte[] from, int at) { return BitConverter.ToUInt32(from, at); }
        static ulong U64(byte[] from, int at) { return BitConverter.ToUInt64(from, at); }

        static string Check(byte[] head, long size)
        {
            const string Foreign = "not a Kinetrel stream";
            if (Encoding.ASCII.GetString(head, 0, 8) != "KINETREL" || U32(head, 8) == 0) return Foreign;
            if (U32(head, 8) > Version) return "newer version: update KinetrelStream.cs";
            ulong total = U64(head, 16);
            bool fits = U32(head, 12) >= HeadSize && total <= (ulong)size && U64(head, Instance) != 0 &&
                        Fits(head, LiveOffset, 1, U32(head, 44), LiveSize) &&
                        Fits(head, RunOffset, 1, U32(head, 52), RunSize) &&
                        Fits(head, SensorOffset, U32(head, 60), U32(head, 84), RecordSize) &&
                        Fits(head, LogOffset, U32(head, 68), U32(head, 72), LogLineSize) &&
                        Fits(head, RingOffset, U32(head, 80), U32(head, 84), RecordSize) &&
                        (U32(head, DevicePoseOffset) == 0 ||
                         Fits(head, DevicePoseOffset, U32(head, 80), U32(head, 92), DevicePoseSize)) &&
                        U32(head, 80) >= Sensors;
            return fits ? null : Foreign;
        }

        // Whether `count` entries of `size` bytes lie within the object, where the head says.
        static bool Fits(byte[] head, int where, uint count, uint size, int known)
        {
            ulong offset = U32(head, where), total = U64(head, 16);
            return offset % 8 == 0 && size % 8 == 0 && size >= known && count > 0 &&
                   offset >= U32(head, 12) && offset <= total && (ulong)count * size <= total - offset;
        }

        // Goes over to the next writer of the slot when there is one. False: none is there.
        bool Follow()
        {
            if (section != null)
            {
                if (section.IsTruncated()) Dispose(); // before it is touched again
                else if (!section.IsReplaced() && Load(0) == U64(head, 0) &&
                         Load(Instance) == U64(head, Instance)) return true;
            }
            ulong before = section != null ? U64(head, Instance) : 0;
            if (TryAttach() != null) return false;
            if (U64(head, Instance) == before) return true;
            next = Oldest(Load(Live(Newest)));
            ++Restarts;
            return true;
        }

        // ---- Words and entries ----

        ulong Load(long offset)
        {
            ulong word = (ulong)Marshal.ReadInt64(section.At(offset));
            Thread.MemoryBarrier(); // what follows is read after it
            return word;
        }

        long Live(int field) { return U32(head, LiveOffset) + field; }

        // Copies an entry into `copy`. Its sequence number, or an odd number: it changed meanwhile.
        ulong TryCopy(long offset, int size)
        {
            ulong before = Load(offset);
            if ((before & 1) != 0) return before;
            section.Copy(offset, copy, size);
            Thread.MemoryBarrier();
            return Load(offset) == before ? before : before | 1;
        }

        bool CopyWhole(long offset, int size)
        {
            for (int i = 0; i < Tries; ++i)
                if ((TryCopy(offset, size) & 1) == 0) return true;
            return false;
        }

        string Text(int at, int size)
        {
            int length = Array.IndexOf(copy, (byte)0, at, size) - at;
            StringBuilder text = new StringBuilder(Encoding.UTF8.GetString(copy, at, length < 0 ? size : length));
            for (int i = 0; i < text.Length; ++i)
                if (char.IsControl(text[i])) text[i] = '?';
            return text.ToString();
        }

        // The pose at `at` in the copy.
        void Pose(ref KinetrelRecord record, int at)
        {
            record.X = BitConverter.ToDouble(copy, at);
            record.Y = BitConverter.ToDouble(copy, at + 8);
            record.Z = BitConverter.ToDouble(copy, at + 16);
            record.QW = BitConverter.ToSingle(copy, at + 24);
            record.QX = BitConverter.ToSingle(copy, at + 28);
            record.QY = BitConverter.ToSingle(copy, at + 32);
            record.QZ = BitConverter.ToSingle(copy, at + 36);
            record.Azimuth = BitConverter.ToSingle(copy, at + 40);
            record.Elevation = BitConverter.ToSingle(copy, at + 44);
            record.Roll = BitConverter.ToSingle(copy, at + 48);
        }

        KinetrelRecord Record()
        {
            KinetrelRecord record = default(KinetrelRecord);
            record.Number = U64(copy, 0) / 2;
            record.Frame = U64(copy, 8);
            record.SampleNs = BitConverter.ToInt64(copy, 16);
            record.PublishNs = BitConverter.ToInt64(copy, 24);
            Pose(ref record, 32);
            record.Sensor = (int)U32(copy, 84) + 1;
            record.Flags = U32(copy, 88);
            record.DeviceCode = BitConverter.ToInt32(copy, 92);
            record.Buttons = U32(copy, 96);
            record.ButtonsKnown = U32(copy, 100);
            return record;
        }

        // The oldest record that the writer will not overwrite at once.
        ulong Oldest(ulong newest)
        {
            ulong count = U32(head, 80), kept = count - count / 32;
            return newest > kept ? newest - kept + 1 : 1;
        }

        // ---- Records ----

        enum Taken { Record, None, Damaged }

        Taken Take(out KinetrelRecord record)
        {
            record = default(KinetrelRecord);
            for (int i = 0; i < Tries; ++i)
            {
                ulong newest = Load(Live(Newest));
                if (newest + 1 == next) return Taken.None;
                if (newest < next) return Taken.Damaged; // it went back
                if (newest - next < U32(head, 80))
                {
                    long at = U32(head, RingOffset) + (long)(next % U32(head, 80)) * U32(head, 84);
                    ulong sequence = TryCopy(at, RecordSize);
                    if (sequence == 2 * next)
                    {
                        ++next;
                        record = Record();
                        return Taken.Record;
                    }
                    if (sequence < 2 * next) return Taken.Damaged;
                }
                // The writer has come round: go on where it will not be soon.
                ulong oldest = Oldest(newest);
                if (oldest > next)
                {
                    Lost += oldest - next;
                    next = oldest;
                }
            }
            return Taken.Damaged;
        }

        /// <summary>The next record. False: none came within the time (0: does not wait).</summary>
        /// <remarks>A writer that ends is no error: the call waits for the next one on the slot.</remarks>
        public bool Next(out KinetrelRecord record, int timeoutMs)
        {
            long end = NowNs + timeoutMs * 1000000L;
            int inVain = 0;
            for (;;)
            {
                uint arrivals = 0;
                Taken taken = Taken.None;
                record = default(KinetrelRecord);
                if (section != null)
                {
                    arrivals = (uint)Load(Live(Arrivals)); // before the look: no arrival is overslept
                    taken = Take(out record);
                    if (taken == Taken.Record) return true;
                }
                long now = NowNs;
                bool follows = section != null;
                if (taken == Taken.Damaged || now >= checkNs)
                {
                    int restarts = Restarts;
                    follows = Follow();
                    checkNs = follows ? now + CheckEveryMs * 1000000L : 0;
                    if (Restarts != restarts) continue;
                    if (follows && taken == Taken.Damaged)
                        throw new KinetrelException("slot " + slot + ": not a Kinetrel stream");
                }
                int left = (int)Math.Min(CheckEveryMs, (end - now + 999999) / 1000000);
                if (left <= 0) return false;
                if (follows) section.Wait(Live(Arrivals), arrivals, left);
                else Thread.Sleep(Math.Min(left, 10)); // until the next writer comes
                inVain = NowNs - now < 100000 ? inVain + 1 : 0;
                if (inVain > 10) Thread.Sleep(1); // a count that goes on without records
            }
        }

        /// <summary>The newest record of a sensor (from 1), whether Next has returned it or not.</summary>
        public bool Latest(int sensor, out KinetrelRecord record)
        {
            record = default(KinetrelRecord);
            if (sensor < 1 || sensor > Sensors) throw new ArgumentOutOfRangeException("sensor");
            long now = NowNs;
            if (now >= checkNs)
                checkNs = Follow() ? now + CheckEveryMs * 1000000L : 0;
            if (section == null || sensor > U32(head, 60)) return false;
            long at = U32(head, SensorOffset) + (long)(sensor - 1) * U32(head, 84);
            if (!CopyWhole(at, RecordSize) || U64(copy, 0) == 0) return false;
            record = Record();
            return true;
        }

        /// <summary>A filtered record with the device's own pose. False: overwritten since then.</summary>
        public bool DevicePose(KinetrelRecord record, out KinetrelRecord own)
        {
            own = record;
            if (!record.IsFiltered) return true;
            if (section == null || U32(head, DevicePoseOffset) == 0) return false;
            long at = U32(head, DevicePoseOffset) + (long)(record.Number % U32(head, 80)) * U32(head, 92);
            if (TryCopy(at, DevicePoseSize) != 2 * record.Number) return false;
            Pose(ref own, 8);
            own.Flags = record.Flags & ~(PoseBits | FilterBits) | U32(copy, 60) & PoseBits;
            return true;
        }

        // ---- What is now ----

        /// <summary>What the tracker is doing, and a sentence that the user can act on.</summary>
        public KinetrelState State(out string text)
        {
            text = "The tracker's program shows no sign of life: it was killed or held up.";
            if (!Follow() && section == null) return KinetrelState.Lost;
            if (!CopyWhole(U32(head, RunOffset), RunSize)) return KinetrelState.Lost;
            int state = BitConverter.ToInt32(copy, RunState);
            bool ended = state == (int)KinetrelState.Stopped || state == (int)KinetrelState.Failed;
            if (!ended && NowNs - (long)Load(Live(Heartbeat)) > HeartbeatPatienceNs) return KinetrelState.Lost;
            text = Text(RunStateText, RunStateTextSize);
            return state > 0 && state < (int)KinetrelState.Lost ? (KinetrelState)state : KinetrelState.Unknown;
        }

        /// <summary>The tracker's name; empty while the next writer is awaited.</summary>
        public string DeviceName
        {
            get
            {
                bool whole = section != null && CopyWhole(U32(head, RunOffset), RunSize);
                return whole ? Text(RunDeviceName, RunDeviceNameSize) : "";
            }
        }

        // ---- The system's part ----

        // The mapped object.
        abstract class Section : IDisposable
        {
            public long Size;
            protected IntPtr Base;
            public IntPtr At(long offset) { return new IntPtr(Base.ToInt64() + offset); }
            public void Copy(long offset, byte[] into, int size) { Marshal.Copy(At(offset), into, 0, size); }
            public abstract bool IsTruncated();
            public abstract bool IsReplaced();
            public abstract void Wait(long offset, uint value, int milliseconds);
            public abstract void Dispose();
        }

        static class Os
        {
            static readonly bool Windows = Environment.OSVersion.Platform == PlatformID.Win32NT;

            public static long NowNs() { return Windows ? WindowsSection.NowNs() : LinuxSection.NowNs(); }

            public static string Map(int slot, out Section section)
            {
                string name = "KinetrelStream" + (slot - 1).ToString("X");
                return Windows ? WindowsSection.Map(name, out section) : LinuxSection.Map(name, out section);
            }
        }

        sealed class LinuxSection : Section
        {
            [StructLayout(LayoutKind.Sequential)]
            struct Time { public IntPtr Seconds, Nanoseconds; }

            [DllImport("libc")]
            static extern int clock_gettime(int clock, out Time time);
            [DllImport("libc")]
            static extern IntPtr syscall(IntPtr number, IntPtr word, IntPtr operation, IntPtr value,
                                         ref Time limit, IntPtr none, IntPtr mask);
            [DllImport("libc")]
            static extern int access(string path, int mode);

            const int Monotonic = 1;
            readonly string path;
            readonly FileStream file;
            readonly MemoryMappedFile mapped;
            readonly MemoryMappedViewAccessor view;
            // The number of FUTEX_WAIT's system call is the processor's; 0: unknown, so we poll.
            static readonly int Futex = RuntimeInformation.ProcessArchitecture == Architecture.X64 ? 202
                : RuntimeInformation.ProcessArchitecture == Architecture.Arm64 ? 98 : 0;

            LinuxSection(string path)
            {
                this.path = path;
                file = new FileStream(path, FileMode.Open, FileAccess.Read, FileShare.ReadWrite | FileShare.Delete);
                try
                {
                    Size = file.Length;
                    if (Size < HeadSize) return;
                    mapped = MemoryMappedFile.CreateFromFile(file, null, 0, MemoryMappedFileAccess.Read,
                                                             HandleInheritability.None, true);
                    view = mapped.CreateViewAccessor(0, Size, MemoryMappedFileAccess.Read);
                    Base = view.SafeMemoryMappedViewHandle.DangerousGetHandle();
                }
                catch
                {
                    Dispose();
                    throw;
                }
            }

            public static string Map(string name, out Section section)
            {
                section = null;
                try { section = new LinuxSection("/dev/shm/" + name); }
                catch (FileNotFoundException) { return "no tracker publishes there"; }
                catch (UnauthorizedAccessException) { return "this account may not read the stream"; }
                catch (IOException error) { return error.Message; }
                return null;
            }

            public static long NowNs()
            {
                Time now;
                clock_gettime(Monotonic, out now);
                return now.Seconds.ToInt64() * 1000000000 + now.Nanoseconds.ToInt64();
            }

            public override bool IsTruncated() { return file.Length < Size; }

            // .NET does not tell how many names a file has: the object is the slot's while the name
            // leads to one with the same instance number.
            public override bool IsReplaced()
            {
                try
                {
                    using (FileStream named = new FileStream(path, FileMode.Open, FileAccess.Read,
                                                             FileShare.ReadWrite | FileShare.Delete))
                    {
                        byte[] bytes = new byte[8];
                        named.Seek(Instance, SeekOrigin.Begin);
                        return named.Read(bytes, 0, 8) != 8 ||
                               U64(bytes, 0) != (ulong)Marshal.ReadInt64(At(Instance));
                    }
                }
                catch (IOException) { return true; }
            }

            public override void Wait(long offset, uint value, int milliseconds)
            {
                if (Futex == 0)
                {
                    Thread.Sleep(1);
                    return;
                }
                Time limit;
                limit.Seconds = new IntPtr(milliseconds / 1000);
                limit.Nanoseconds = new IntPtr(milliseconds % 1000 * 1000000);
                syscall(new IntPtr(Futex), At(offset), IntPtr.Zero, new IntPtr((int)value), ref limit,
                        IntPtr.Zero, IntPtr.Zero);
            }

            public override void Dispose()
            {
                if (view != null) view.Dispose();
                if (mapped != null) mapped.Dispose();
                file.Dispose();
            }
        }

        sealed class WindowsSection : Section
        {
            [DllImport("kernel32", CharSet = CharSet.Unicode, SetLastError = true)]
            static extern IntPtr OpenFileMappingW(uint access, bool inherit, string name);
            [DllImport("kernel32", CharSet = CharSet.Unicode, SetLastError = true)]
            static extern IntPtr OpenEventW(uint access, bool inherit, string name);
            [DllImport("kernel32")]
            static extern IntPtr MapViewOfFile(IntPtr section, uint access, uint high, uint low, IntPtr size);
            [DllImport("kernel32")]
            static extern bool UnmapViewOfFile(IntPtr address);
            [DllImport("kernel32")]
            static extern bool CloseHandle(IntPtr handle);
            [DllImport("kernel32")]
            static extern uint WaitForSingleObject(IntPtr handle, uint milliseconds);
            [DllImport("kernel32")]
            static extern IntPtr VirtualQuery(IntPtr address, out MemoryInformation about, IntPtr size);
            [DllImport("kernel32")]
            static extern bool QueryPerformanceCounter(out long ticks);
            [DllImport("kernel32")]
            static extern bool QueryPerformanceFrequency(out long frequency);

            [StructLayout(LayoutKind.Sequential)]
            struct MemoryInformation
            {
                public IntPtr BaseAddress, AllocationBase;
                public uint AllocationProtect;
                public IntPtr RegionSize;
                public uint State, Protect, Type;
            }

            const uint MapRead = 4, Synchronize = 0x00100000, Committed = 0x1000;
            readonly IntPtr[] handles = new IntPtr[3];

            public static string Map(string name, out Section section)
            {
                section = null;
                WindowsSection made = new WindowsSection();
                made.handles[0] = OpenFileMappingW(MapRead, false, name);
                int error = Marshal.GetLastWin32Error();
                for (int i = 0; i < 2; ++i) made.handles[1 + i] = OpenEventW(Synchronize, false, name + "Wake" + i);
                bool whole = Array.IndexOf(made.handles, IntPtr.Zero) < 0;
                if (whole) made.Base = MapViewOfFile(made.handles[0], MapRead, 0, 0, IntPtr.Zero);
                if (made.Base == IntPtr.Zero)
                {
                    made.Dispose();
                    return whole ? "the stream cannot be mapped" : error == 5
                        ? "this account may not read the stream" : "no tracker publishes there";
                }
                MemoryInformation about;
                bool known = VirtualQuery(made.Base, out about, new IntPtr(Marshal.SizeOf(typeof(MemoryInformation)))) != IntPtr.Zero;
                // Memory that is only reserved must not be touched.
                made.Size = known && about.State == Committed ? about.RegionSize.ToInt64() : 0;
                section = made;
                return null;
            }

            public static long NowNs()
            {
                long ticks, frequency;
                QueryPerformanceCounter(out ticks);
                QueryPerformanceFrequency(out frequency);
                return ticks / frequency * 1000000000 + ticks % frequency * 1000000000 / frequency;
            }

            public override bool IsTruncated() { return false; } // a section keeps its size
            public override bool IsReplaced() { return false; }  // and its name, while it is open

            // Two events take turns. A client that oversleeps two arrivals would wait for the third.
            public override void Wait(long offset, uint value, int milliseconds)
            {
                WaitForSingleObject(handles[1 + (value & 1)], (uint)Math.Min(milliseconds, 100));
            }

            public override void Dispose()
            {
                if (Base != IntPtr.Zero) UnmapViewOfFile(Base);
                foreach (IntPtr handle in handles)
                    if (handle != IntPtr.Zero) CloseHandle(handle);
                Base = IntPtr.Zero;
            }
        }
    }

    /// <summary>A pose in Unity's frame: left-handed, x right, y up, z forward, metres.</summary>
    /// <remarks>
    /// The one place of the conversion. The tracker's frame is right-handed: x forward, y right, z
    /// down (the FASTRAK family's by default). So Unity's x is the tracker's y, Unity's y is its -z
    /// and Unity's z is its x. The change of hand turns the sign of the rotation: the vector part of
    /// the quaternion is renamed alike and negated.
    /// </remarks>
    public static class KinetrelUnity
    {
        public static void Position(ref KinetrelRecord record, out float x, out float y, out float z)
        {
            x = (float)record.Y;
            y = (float)-record.Z;
            z = (float)record.X;
        }

        public static void Rotation(ref KinetrelRecord record, out float x, out float y, out float z, out float w)
        {
            x = -record.QY;
            y = record.QZ;
            z = -record.QX;
            w = record.QW;
        }
    }
}
